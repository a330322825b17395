// The calls that must not meet the phone's paths, since they make no sense there: programs of the
// phone are not built for the workstation, and its file systems are not mounted.

#include <alloca.h>
#include <fts.h>
#include <ftw.h>
#include <glob.h>
#include <libintl.h>
#include <mntent.h>
#include <nl_types.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/quota.h>
#include <sys/socket.h>
#include <sys/swap.h>
#include <sys/un.h>
#include <unistd.h>
#include <utmp.h>
#include <utmpx.h>
#include <wordexp.h>

#include "interpose.h"

// The symbols are libc's own, whatever a program may not call its functions.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

// Those that libc exports and its headers keep to themselves.
extern "C" int chflags(const char*, unsigned long);
extern "C" decltype(::setmntent) __setmntent;
extern "C" int pivot_root(const char*, const char*);
extern "C" void* _IO_file_fopen(void*, const char*, const char*, int);
extern "C" void* _IO_file_open(void*, const char*, int, int, int, int);

namespace velmar_phone {
namespace {

// Counts the arguments of an execl call up to the null pointer, which it takes as well.
size_t CountArguments(va_list* rest) {
    size_t count = 0;
    while (va_arg(*rest, const char*) != nullptr) ++count;
    return count;
}

void RefuseAll(const char* call, std::initializer_list<const char*> paths) {
    for (const char* path : paths) RefusePhonePath(call, path);
}

void RefuseEach(const char* call, char* const* paths) {
    for (; *paths != nullptr; ++paths) RefusePhonePath(call, *paths);
}

void RefuseAddress(const char* call, const sockaddr* address, socklen_t length) {
    constexpr size_t kPathOffset = offsetof(sockaddr_un, sun_path);
    if (address == nullptr || address->sa_family != AF_UNIX) return;
    if (length <= kPathOffset || length > sizeof(sockaddr_un)) return;
    // The address need not end in a NUL.
    char path[sizeof(sockaddr_un)] = {};
    memcpy(path, reinterpret_cast<const char*>(address) + kPathOffset, length - kPathOffset);
    RefusePhonePath(call, path);
}

// Apart from dlopen's entry, whose frame must hold nothing.
[[gnu::noinline]] bool IsInPhone(const char* path) {
    PathText ignored;
    return FindPhonePath(path, &ignored) && CurrentPhone() != nullptr;
}

[[gnu::noinline]] void* OpenLibrary(const char* path, int mode, void* (*next)(const char*, int)) {
    // A path that does not resolve is one that cannot be loaded: dlopen gives its own message.
    return next(PhonePath(path, LastLink::kFollow).text(), mode);
}

}  // namespace

#define GUARD(arity, symbol, ...)          \
    VELMAR_ENTRY(arity, symbol) {          \
        RefuseAll(#symbol, {__VA_ARGS__}); \
        return VELMAR_NEXT(arity, symbol); \
    }

GUARD(2, execv, a)
GUARD(2, execvp, a)
GUARD(3, execve, a)
GUARD(3, execvpe, a)
GUARD(5, execveat, b)
GUARD(6, posix_spawn, b)
GUARD(6, posix_spawnp, b)
GUARD(5, posix_spawn_file_actions_addopen, c)
GUARD(2, posix_spawn_file_actions_addchdir_np, b)
GUARD(3, dlmopen, b)

GUARD(3, ftw, a)
GUARD(3, ftw64, a)
GUARD(4, nftw, a)
GUARD(4, nftw64, a)
GUARD(4, glob, a)
GUARD(4, glob64, a)
GUARD(3, wordexp, a)

GUARD(1, chroot, a)
GUARD(2, pivot_root, a, b)
GUARD(5, mount, a, b)
GUARD(1, umount, a)
GUARD(2, umount2, a)
GUARD(5, move_mount, b, d)
GUARD(3, open_tree, b)
GUARD(3, fspick, b)
GUARD(5, mount_setattr, b)
GUARD(5, name_to_handle_at, b)
GUARD(5, fanotify_mark, e)
GUARD(4, quotactl, b)
GUARD(2, swapon, a)
GUARD(1, swapoff, a)
GUARD(1, acct, a)
GUARD(1, revoke, a)
GUARD(2, chflags, a)

GUARD(1, mktemp, a)
GUARD(1, mkdtemp, a)
GUARD(2, tempnam, a)
GUARD(2, setmntent, a)
GUARD(2, __setmntent, a)
GUARD(1, utmpname, a)
GUARD(1, utmpxname, a)
GUARD(2, updwtmp, a)
GUARD(2, updwtmpx, a)
GUARD(2, bindtextdomain, b)
GUARD(2, catopen, a)
GUARD(4, _IO_file_fopen, b)
GUARD(6, _IO_file_open, b)

#define GUARD_BY(arity, symbol, refuse, ...) \
    VELMAR_ENTRY(arity, symbol) {            \
        refuse(#symbol, __VA_ARGS__);        \
        return VELMAR_NEXT(arity, symbol);   \
    }

GUARD_BY(3, fts_open, RefuseEach, a)
GUARD_BY(3, fts64_open, RefuseEach, a)
GUARD_BY(3, bind, RefuseAddress, b, c)
GUARD_BY(3, connect, RefuseAddress, b, c)
GUARD_BY(6, sendto, RefuseAddress, e, f)
GUARD_BY(3, sendmsg, RefuseAddress, static_cast<const sockaddr*>(b->msg_name), b->msg_namelen)

// These three alone take any number of arguments. The array stays off the heap, which a child of
// fork in a threaded program must not use; execle has the environment behind the null pointer.
// NOLINTBEGIN(cert-dcl50-cpp)
#define EXECL_CALL(symbol, execute)                                             \
    extern "C" __attribute__((visibility("default"))) int Entry_##symbol(       \
            const char* path, const char* first, ...) __asm__(#symbol);         \
    int Entry_##symbol(const char* path, const char* first, ...) {              \
        va_list rest;                                                           \
        va_start(rest, first);                                                  \
        const size_t count = CountArguments(&rest) + 1;                         \
        va_end(rest);                                                           \
        auto** argv = static_cast<char**>(alloca((count + 1) * sizeof(char*))); \
        argv[0] = const_cast<char*>(first);                                     \
        va_start(rest, first);                                                  \
        for (size_t i = 1; i <= count; ++i) argv[i] = va_arg(rest, char*);      \
        [[maybe_unused]] const auto environment = &rest;                        \
        const int result = execute;                                             \
        va_end(rest);                                                           \
        return result;                                                          \
    }

EXECL_CALL(execl, execv(path, argv));
EXECL_CALL(execlp, execvp(path, argv));
EXECL_CALL(execle, execve(path, argv, va_arg(*environment, char**)));
// NOLINTEND(cert-dcl50-cpp)

// A library of the phone is loaded from it. Any other call leaves no trace of this entry: a name
// without a slash is sought by the run path of the caller, which libc knows by the return address.
#if defined(__clang__)
#define TAIL_CALL [[clang::musttail]] return
#else
#define TAIL_CALL return
#pragma GCC push_options
#pragma GCC optimize("O2")
#endif
VELMAR_ENTRY(2, dlopen) {
    if (IsInPhone(a)) return OpenLibrary(a, b, next_dlopen.Get());
    auto* const open_library = next_dlopen.Get();
    TAIL_CALL open_library(a, b);
}
#if !defined(__clang__)
#pragma GCC pop_options
#endif

}  // namespace velmar_phone

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
