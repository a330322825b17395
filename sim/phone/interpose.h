#pragma once

#include <dlfcn.h>
#include <errno.h>

#include <atomic>
#include <tuple>
#include <type_traits>

#include "faults.h"
#include "phone.h"

// How a libc call is taken over: the library exports the call's symbol, which programs meet before
// libc's, and hands on to the next one (a sanitizer's or libc's own).
namespace velmar_phone {

constexpr LastLink kFollow = LastLink::kFollow;
constexpr LastLink kKeep = LastLink::kKeep;

template <typename F>
struct Signature;
template <typename R, typename... A>
struct Signature<R(A...)> {
    using Result = R;
    using Arguments = std::tuple<A...>;
};
template <typename R, typename... A>
struct Signature<R(A...) noexcept> : Signature<R(A...)> {};
template <typename F>
using Result = typename Signature<F>::Result;
template <typename F, size_t index>
using Argument = std::tuple_element_t<index, typename Signature<F>::Arguments>;

// The next definition of a symbol. Found when the library is loaded, since the linker's lock is not
// for signal handlers, but usable before: libraries that are set up earlier call libc as well.
template <typename F>
class Next {
  public:
    constexpr explicit Next(const char* symbol) noexcept : symbol_(symbol) {}

    // Looks the definition up; an old libc may lack it, which only a caller need regret.
    bool Bind() noexcept {
        function_.store(reinterpret_cast<F*>(dlsym(RTLD_NEXT, symbol_)), std::memory_order_relaxed);
        return function_.load(std::memory_order_relaxed) != nullptr;
    }
    F* Get() {
        F* const function = function_.load(std::memory_order_relaxed);
        if (function != nullptr) return function;
        if (!Bind()) Die({symbol_, " is missing in the C library"});
        return function_.load(std::memory_order_relaxed);
    }
    template <typename... Arguments>
    auto operator()(Arguments... arguments) {
        return Get()(arguments...);
    }

  private:
    const char* symbol_;
    std::atomic<F*> function_{nullptr};
};

// A path argument, led into the phone if it is one of the phone's paths.
class PhonePath {
  public:
    PhonePath(const char* path, LastLink last);

    // Null for a path that is not the phone's.
    Phone* phone() const { return phone_; }
    const char* given() const { return given_; }
    // What to hand on.
    const char* text() const { return phone_ == nullptr ? given_ : resolved_.text; }
    // The same where the call writes into it, as mkstemp does; `given` is the program's own.
    char* Template(char* given) { return phone_ == nullptr ? given : resolved_.text; }
    const PathText& resolved() const { return resolved_; }
    int error() const { return error_; }

  private:
    const char* given_;
    Phone* phone_ = nullptr;
    int error_ = 0;
    PathText resolved_;
};

// Whether `call` fails before it is made, by a path or by a fault; sets errno.
bool Fails(const char* call, const PhonePath& at, const PhonePath* other = nullptr);

// Ends the process if `path` is the phone's: for calls that make no sense in the simulated phone.
// That is louder, and safer, than a call that touches the workstation's files.
void RefusePhonePath(const char* call, const char* path);

// What a failing call returns.
template <typename R>
R Failure() {
    if constexpr (std::is_pointer_v<R>) {
        return nullptr;
    } else {
        return static_cast<R>(-1);
    }
}

}  // namespace velmar_phone

// What libc's headers say about a function's arguments beyond their types is of no matter here.
#pragma GCC diagnostic ignored "-Wignored-attributes"

// The tables of calls are made of these. A call's arguments are a, b, c...; its function has a name
// other than the symbol, so that what libc's headers declare about the symbol stays away.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define VELMAR_PARAMS_1(F) Argument<F, 0> a
#define VELMAR_PARAMS_2(F) VELMAR_PARAMS_1(F), Argument<F, 1> b
#define VELMAR_PARAMS_3(F) VELMAR_PARAMS_2(F), Argument<F, 2> c
#define VELMAR_PARAMS_4(F) VELMAR_PARAMS_3(F), Argument<F, 3> d
#define VELMAR_PARAMS_5(F) VELMAR_PARAMS_4(F), Argument<F, 4> e
#define VELMAR_PARAMS_6(F) VELMAR_PARAMS_5(F), Argument<F, 5> f
#define VELMAR_ARGS_1 a
#define VELMAR_ARGS_2 a, b
#define VELMAR_ARGS_3 a, b, c
#define VELMAR_ARGS_4 a, b, c, d
#define VELMAR_ARGS_5 a, b, c, d, e
#define VELMAR_ARGS_6 a, b, c, d, e, f

// Takes over `symbol`, a function of type F with `arity` arguments. Its body follows.
#define VELMAR_ENTRY_AS(arity, symbol, F)                                                 \
    extern "C" __attribute__((visibility("default"))) Result<F> Entry_##symbol(           \
            VELMAR_PARAMS_##arity(F)) __asm__(#symbol);                                   \
    static Next<std::remove_pointer_t<decltype(&Entry_##symbol)>> next_##symbol(#symbol); \
    [[maybe_unused]] static const bool bound_##symbol = next_##symbol.Bind();             \
    Result<F> Entry_##symbol(VELMAR_PARAMS_##arity(F))
#define VELMAR_ENTRY(arity, symbol) VELMAR_ENTRY_AS(arity, symbol, decltype(::symbol))
#define VELMAR_NEXT(arity, symbol) next_##symbol(VELMAR_ARGS_##arity)

// A call whose argument `path` is led into the phone; `then` may look at `at` and the call's
// result.
#define VELMAR_PATH_AS(arity, symbol, F, path, call, last, then) \
    VELMAR_ENTRY_AS(arity, symbol, F) {                          \
        const PhonePath at(path, last);                          \
        if (Fails(call, at)) return Failure<Result<F>>();        \
        path = at.text();                                        \
        return then(VELMAR_NEXT(arity, symbol));                 \
    }
#define PATH_CALL(arity, symbol, path, call, last) \
    VELMAR_PATH_AS(arity, symbol, decltype(::symbol), path, call, last, )
// NOLINTEND(bugprone-macro-parentheses)
