// The calls on files by their path, other than those that open them.

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

#include "interpose.h"

// The symbols are libc's own, whatever a program may not call its functions.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)

// Those that libc exports and its headers keep to themselves.
using XStat = int(int, const char*, struct stat*);
using XStatAt = int(int, int, const char*, struct stat*, int);
extern "C" XStat __xstat, __xstat64, __lxstat, __lxstat64;
extern "C" XStatAt __fxstatat, __fxstatat64;
extern "C" int __xmknod(int, const char*, mode_t, dev_t*);
extern "C" int __xmknodat(int, int, const char*, mode_t, dev_t*);
extern "C" decltype(::statfs) __statfs;
extern "C" ssize_t __readlink_chk(const char*, char*, size_t, size_t);
extern "C" ssize_t __readlinkat_chk(int, const char*, char*, size_t, size_t);
extern "C" char* __realpath_chk(const char*, char*, size_t);

namespace velmar_phone {
namespace {

LastLink ByFlags(int flags) {
    return (flags & AT_SYMLINK_NOFOLLOW) != 0 ? kKeep : kFollow;
}

// The program sees the phone's paths where a call gives back one.
char* InPhone(const PhonePath& at, char* path) {
    if (path != nullptr && at.phone() != nullptr) StripRoot(*at.phone(), path);
    return path;
}

}  // namespace

PATH_CALL(2, stat, a, "stat", kFollow)
PATH_CALL(2, stat64, a, "stat", kFollow)
PATH_CALL(2, lstat, a, "stat", kKeep)
PATH_CALL(2, lstat64, a, "stat", kKeep)
PATH_CALL(4, fstatat, b, "stat", ByFlags(d))
PATH_CALL(4, fstatat64, b, "stat", ByFlags(d))
PATH_CALL(5, statx, b, "stat", ByFlags(c))
PATH_CALL(3, __xstat, b, "stat", kFollow)
PATH_CALL(3, __xstat64, b, "stat", kFollow)
PATH_CALL(3, __lxstat, b, "stat", kKeep)
PATH_CALL(3, __lxstat64, b, "stat", kKeep)
PATH_CALL(5, __fxstatat, c, "stat", ByFlags(e))
PATH_CALL(5, __fxstatat64, c, "stat", ByFlags(e))
PATH_CALL(2, ftok, a, "stat", kFollow)
PATH_CALL(2, access, a, "access", kFollow)
PATH_CALL(4, faccessat, b, "access", ByFlags(d))
PATH_CALL(2, euidaccess, a, "access", kFollow)
PATH_CALL(2, eaccess, a, "access", kFollow)
PATH_CALL(2, statfs, a, "statfs", kFollow)
PATH_CALL(2, statfs64, a, "statfs", kFollow)
PATH_CALL(2, __statfs, a, "statfs", kFollow)
PATH_CALL(2, statvfs, a, "statfs", kFollow)
PATH_CALL(2, statvfs64, a, "statfs", kFollow)
PATH_CALL(2, pathconf, a, "pathconf", kFollow)

PATH_CALL(2, chmod, a, "chmod", kFollow)
PATH_CALL(2, lchmod, a, "chmod", kKeep)
PATH_CALL(4, fchmodat, b, "chmod", ByFlags(d))
PATH_CALL(3, chown, a, "chown", kFollow)
PATH_CALL(3, lchown, a, "chown", kKeep)
PATH_CALL(5, fchownat, b, "chown", ByFlags(e))
PATH_CALL(2, utime, a, "utime", kFollow)
PATH_CALL(2, utimes, a, "utime", kFollow)
PATH_CALL(2, lutimes, a, "utime", kKeep)
PATH_CALL(3, futimesat, b, "utime", kFollow)
PATH_CALL(4, utimensat, b, "utime", ByFlags(d))
PATH_CALL(5, setxattr, a, "setxattr", kFollow)
PATH_CALL(5, lsetxattr, a, "setxattr", kKeep)
PATH_CALL(4, getxattr, a, "getxattr", kFollow)
PATH_CALL(4, lgetxattr, a, "getxattr", kKeep)
PATH_CALL(3, listxattr, a, "listxattr", kFollow)
PATH_CALL(3, llistxattr, a, "listxattr", kKeep)
PATH_CALL(2, removexattr, a, "removexattr", kFollow)
PATH_CALL(2, lremovexattr, a, "removexattr", kKeep)

PATH_CALL(1, unlink, a, "unlink", kKeep)
PATH_CALL(3, unlinkat, b, "unlink", kKeep)
PATH_CALL(1, remove, a, "unlink", kKeep)
PATH_CALL(1, rmdir, a, "rmdir", kKeep)
PATH_CALL(2, mkdir, a, "mkdir", kKeep)
PATH_CALL(3, mkdirat, b, "mkdir", kKeep)
PATH_CALL(2, mkfifo, a, "mknod", kKeep)
PATH_CALL(3, mkfifoat, b, "mknod", kKeep)
PATH_CALL(3, mknod, a, "mknod", kKeep)
PATH_CALL(4, mknodat, b, "mknod", kKeep)
PATH_CALL(4, __xmknod, b, "mknod", kKeep)
PATH_CALL(5, __xmknodat, c, "mknod", kKeep)
PATH_CALL(2, truncate, a, "truncate", kFollow)
PATH_CALL(2, truncate64, a, "truncate", kFollow)
PATH_CALL(2, symlink, b, "symlink", kKeep)
PATH_CALL(3, symlinkat, c, "symlink", kKeep)
PATH_CALL(1, chdir, a, "chdir", kFollow)
PATH_CALL(3, inotify_add_watch, b, "inotify", (c & IN_DONT_FOLLOW) != 0 ? kKeep : kFollow)

PATH_CALL(3, readlink, a, "readlink", kKeep)
PATH_CALL(4, readlinkat, b, "readlink", kKeep)
PATH_CALL(4, __readlink_chk, a, "readlink", kKeep)
PATH_CALL(5, __readlinkat_chk, b, "readlink", kKeep)

#define IN_PHONE(result) InPhone(at, result)
#define REAL_PATH_CALL(arity, symbol) \
    VELMAR_PATH_AS(arity, symbol, decltype(::symbol), a, "realpath", kFollow, IN_PHONE)

REAL_PATH_CALL(2, realpath)
REAL_PATH_CALL(3, __realpath_chk)
REAL_PATH_CALL(1, canonicalize_file_name)

#define TWO_PATH_CALL(arity, symbol, from, to, call, last) \
    VELMAR_ENTRY(arity, symbol) {                          \
        const PhonePath from_at(from, last);               \
        const PhonePath to_at(to, kKeep);                  \
        if (Fails(call, from_at, &to_at)) return -1;       \
        from = from_at.text();                             \
        to = to_at.text();                                 \
        return VELMAR_NEXT(arity, symbol);                 \
    }

TWO_PATH_CALL(2, rename, a, b, "rename", kKeep)
TWO_PATH_CALL(4, renameat, b, d, "rename", kKeep)
TWO_PATH_CALL(5, renameat2, b, d, "rename", kKeep)
TWO_PATH_CALL(2, link, a, b, "link", kKeep)
TWO_PATH_CALL(5, linkat, b, d, "link", (e & AT_SYMLINK_FOLLOW) != 0 ? kFollow : kKeep)

}  // namespace velmar_phone

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)
