// The calls that open files.

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "device.h"
#include "interpose.h"

// The symbols are libc's own, whatever a program may not call its functions.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)

// Those that libc exports and its headers keep to themselves, or declare as variadic: the optional
// argument is passed as any other where the simulator runs, and not looked at where it is missing.
using Open = int(const char*, int, mode_t);
using OpenAt = int(int, const char*, int, mode_t);
using OpenPlain = int(const char*, int);
using OpenAtPlain = int(int, const char*, int);
extern "C" decltype(::fopen) _IO_fopen;

namespace velmar_phone {
namespace {

constexpr int kCreate = O_CREAT | O_WRONLY | O_TRUNC;

LastLink ByOpenFlags(int flags) {
    const bool is_exclusive = (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL);
    return (flags & O_NOFOLLOW) != 0 || is_exclusive ? kKeep : kFollow;
}

// The kernel refuses to open a socket file with ENXIO: it is one of the phone's devices.
int OrDevice(const PhonePath& at, int flags, int fd) {
    if (fd >= 0 || errno != ENXIO || at.phone() == nullptr) return fd;
    return OpenDevice(at.phone(), at.resolved(), flags);
}

FILE* OrDevice(const PhonePath& at, const char* mode, FILE* stream) {
    if (stream != nullptr || errno != ENXIO || at.phone() == nullptr) return stream;
    const int flags = strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0;
    const int fd = OpenDevice(at.phone(), at.resolved(), flags);
    if (fd < 0) return nullptr;
    stream = fdopen(fd, mode);
    if (stream == nullptr) close(fd);
    return stream;
}

// Puts the name that libc has made in the resolved template into the program's own.
void WriteName(const PhonePath& at, char* path) {
    if (at.phone() == nullptr) return;
    const std::string_view name = strrchr(at.text(), '/');
    name.copy(path + strlen(path) - name.size(), name.size());
}

}  // namespace
#define OPEN_CALL(arity, symbol, F, path, flags)                \
    VELMAR_ENTRY_AS(arity, symbol, F) {                         \
        const PhonePath at(path, ByOpenFlags(flags));           \
        if (Fails("open", at)) return -1;                       \
        path = at.text();                                       \
        return OrDevice(at, flags, VELMAR_NEXT(arity, symbol)); \
    }

OPEN_CALL(3, open, Open, a, b)
OPEN_CALL(3, open64, Open, a, b)
OPEN_CALL(3, __open, Open, a, b)
OPEN_CALL(3, __open64, Open, a, b)
OPEN_CALL(2, __open_2, OpenPlain, a, b)
OPEN_CALL(2, __open64_2, OpenPlain, a, b)
OPEN_CALL(4, openat, OpenAt, b, c)
OPEN_CALL(4, openat64, OpenAt, b, c)
OPEN_CALL(3, __openat_2, OpenAtPlain, b, c)
OPEN_CALL(3, __openat64_2, OpenAtPlain, b, c)
OPEN_CALL(2, creat, decltype(::creat), a, kCreate)
OPEN_CALL(2, creat64, decltype(::creat64), a, kCreate)

#define OR_DEVICE(stream) OrDevice(at, b, stream)
#define STREAM_CALL(symbol)                                  \
    VELMAR_PATH_AS(2, symbol, decltype(::symbol), a, "open", \
                   strchr(b, 'x') != nullptr ? kKeep : kFollow, OR_DEVICE)

STREAM_CALL(fopen)
STREAM_CALL(fopen64)
STREAM_CALL(_IO_fopen)

// freopen closes what the stream has open from inside libc.
#define REOPEN_CALL(symbol)                    \
    VELMAR_ENTRY(3, symbol) {                  \
        const PhonePath at(a, kFollow);        \
        if (Fails("open", at)) return nullptr; \
        DropDeviceMark(fileno(c));             \
        return next_##symbol(at.text(), b, c); \
    }

REOPEN_CALL(freopen)
REOPEN_CALL(freopen64)

PATH_CALL(1, opendir, a, "open", kFollow)
PATH_CALL(4, scandir, a, "open", kFollow)
PATH_CALL(4, scandir64, a, "open", kFollow)
PATH_CALL(5, scandirat, b, "open", kFollow)
PATH_CALL(5, scandirat64, b, "open", kFollow)

#define TEMPORARY_CALL(arity, symbol)                                        \
    VELMAR_ENTRY(arity, symbol) {                                            \
        char* const given = a;                                               \
        PhonePath at(a, kKeep);                                              \
        if (Fails("open", at)) return Failure<Result<decltype(::symbol)>>(); \
        a = at.Template(a);                                                  \
        const auto result = VELMAR_NEXT(arity, symbol);                      \
        WriteName(at, given);                                                \
        return result;                                                       \
    }

TEMPORARY_CALL(1, mkstemp)
TEMPORARY_CALL(1, mkstemp64)
TEMPORARY_CALL(2, mkostemp)
TEMPORARY_CALL(2, mkostemp64)
TEMPORARY_CALL(2, mkstemps)
TEMPORARY_CALL(2, mkstemps64)
TEMPORARY_CALL(3, mkostemps)
TEMPORARY_CALL(3, mkostemps64)

}  // namespace velmar_phone

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)
