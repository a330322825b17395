// The calls of libc that are taken over. Programs are linked with this library before libc, so that
// the dynamic linker binds them and their libraries to the functions in the second half of this
// file. Each hands on to the next function of its name, which is libc's own.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <libintl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <type_traits>

#include "device.h"
#include "faults.h"

namespace velmar_phone {
namespace {

// All that the phone's programs and their libraries import and that takes a path or works on a
// device. tests/sim/phone_leak_test.sh names a call that is missing.
// clang-format off
#define TAKEN_OVER(CALL) \
    CALL(access) CALL(bindtextdomain) CALL(chdir) CALL(chmod) CALL(close) CALL(dlopen) CALL(dup) \
    CALL(dup2) CALL(fchmod) CALL(fchmodat) CALL(fclose) CALL(fcntl) CALL(fopen) CALL(fopen64) \
    CALL(fstat) CALL(fstat64) CALL(ioctl) CALL(link) CALL(lstat) CALL(lstat64) CALL(mkdir) \
    CALL(mkdtemp) CALL(mkstemp64) CALL(nftw64) CALL(open) CALL(open64) CALL(openat) CALL(poll) \
    CALL(read) CALL(readlink) CALL(realpath) CALL(remove) CALL(rename) CALL(rmdir) CALL(select) \
    CALL(sendfile) CALL(stat) CALL(statvfs) CALL(symlink) CALL(truncate) CALL(unlink) \
    CALL(unlinkat) CALL(utimensat) CALL(write) CALL(writev)
// clang-format on

struct LibcCalls {
#define DECLARE(name) decltype(&::name) name;  // NOLINT(bugprone-macro-parentheses)
    TAKEN_OVER(DECLARE)
#undef DECLARE
};

LibcCalls g_libc_calls;

// Set when the library has been loaded. Before that only other libraries call, as they are loaded:
// they name no path of the phone, and a sanitizer's runtime cannot yet watch code such as ours.
std::atomic<bool> g_is_set_up;

// Gives libc's own functions. They are looked up when the library is loaded: the linker's lock is
// not for signal handlers.
const LibcCalls& Libc() {
    if (!g_is_set_up) {
#define FIND(name) g_libc_calls.name = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name));
        TAKEN_OVER(FIND)
#undef FIND
    }
    return g_libc_calls;
}

[[gnu::constructor]] void SetUp() {
    Libc();
    g_is_set_up = true;
}

constexpr LastLink kFollow = LastLink::kFollow;
constexpr LastLink kKeep = LastLink::kKeep;

// A path argument, led into the phone if it is one of the phone's paths.
struct PhonePath {
    PhonePath(const char* path, LastLink last) : given(path) {
        PathText phone_path;
        if (!g_is_set_up || !FindPhonePath(path, &phone_path)) return;
        phone = CurrentPhone();
        if (phone == nullptr) return;
        const int saved_errno = errno;
        error = ResolveBelow(phone->root.View(), phone_path.View(), last, &resolved);
        errno = saved_errno;
    }

    // What to hand on to libc.
    operator const char*() const { return phone == nullptr ? given : resolved.text; }

    // The kernel refuses to open a socket file with ENXIO: it is one of the phone's devices.
    bool IsRefusedDevice() const { return phone != nullptr && errno == ENXIO; }

    const char* given;
    // Null for a path that is not the phone's.
    Phone* phone = nullptr;
    // Why the path cannot be resolved, or 0.
    int error = 0;
    PathText resolved;
};

// Whether the call `name` fails before it is made, by a path or by a fault; sets errno.
bool Fails(const char* name, const PhonePath& at, const PhonePath* other = nullptr) {
    if (at.phone == nullptr) return false;
    int error = at.error == 0 && other != nullptr ? other->error : at.error;
    if (error == 0) {
        const char* second = other != nullptr ? other->given : nullptr;
        error = TakeFault(*at.phone, name, at.given, second).value_or(FaultHit()).error;
    }
    if (error != 0) errno = error;
    return error != 0;
}

// Makes `call` on `path`, or on the phone's file that it names. Faults know the call as `name`.
template <typename Call>
auto OnPath(const char* name, const char* path, LastLink last, const Call& call) {
    PhonePath at(path, last);
    using Result = decltype(call(at));
    if (!Fails(name, at)) return call(at);
    Result failure = {};
    if constexpr (!std::is_pointer_v<Result>) failure = -1;
    return failure;
}

// The same for a call that gives the file `from` the name `to` as well, or instead.
template <typename Call>
int OnTwoPaths(const char* name, const char* from, const char* to, const Call& call) {
    const PhonePath from_at(from, kKeep);
    const PhonePath to_at(to, kKeep);
    return Fails(name, from_at, &to_at) ? -1 : call(from_at, to_at);
}

// The same for a call that opens a file, or a device.
template <typename Call>
int Open(const char* path, int flags, const Call& call) {
    const LastLink last = (flags & (O_NOFOLLOW | O_EXCL)) != 0 ? kKeep : kFollow;
    return OnPath("open", path, last, [&](const PhonePath& at) {
        const int fd = call(at);
        return fd < 0 && at.IsRefusedDevice() ? OpenDevice(at.phone, at.resolved, flags) : fd;
    });
}

FILE* OpenDeviceStream(const PhonePath& at, const char* mode) {
    const int access = strchr(mode, '+') ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY;
    const int fd = OpenDevice(at.phone, at.resolved, access | O_CLOEXEC);
    return fd < 0 ? nullptr : fdopen(fd, mode);
}

FILE* OpenStream(const char* path, const char* mode, FILE* (*call)(const char*, const char*)) {
    return OnPath("open", path, kFollow, [&](auto& at) {
        FILE* stream = call(at, mode);
        return stream == nullptr && at.IsRefusedDevice() ? OpenDeviceStream(at, mode) : stream;
    });
}

// Puts the name that libc has made of the template `at` into `path`, the program's own.
char* CopyName(const PhonePath& at, char* path) {
    constexpr size_t kSize = sizeof("XXXXXX") - 1;
    memmove(path + strlen(path) - kSize, at + strlen(at) - kSize, kSize);
    return path;
}

LastLink ByFlags(int flags) {
    return (flags & AT_SYMLINK_NOFOLLOW) != 0 ? kKeep : kFollow;
}

// Only devices are hit where they are waited for.
std::optional<FaultHit> TakeDeviceFault(const char* call, int fd) {
    return FindDevice(fd) != nullptr ? TakeDescriptorFault(call, fd) : std::nullopt;
}

// What a call returns that `hit` ends.
int ResultOf(const FaultHit& hit) {
    return hit.error == 0 ? hit.length : Failure(hit.error);
}

ssize_t WriteParts(int fd, const iovec* parts, int count) {
    size_t size = 0;
    for (int i = 0; i < count; ++i) size += parts[i].iov_len;
    Device* device = FindDevice(fd);
    if (device != nullptr && device->access == O_RDONLY) return Failure(EBADF);
    // An empty packet would be the end of the file for the modem; a driver takes no notice.
    if (device != nullptr && size == 0) return 0;
    size_t taken = size;
    if (const auto result = EndBefore("write", fd, &taken)) return *result;
    if (device != nullptr) return WriteDevice(device, fd, parts, count, size, taken);
    if (count != 1 && taken == size) return Libc().writev(fd, parts, count);
    return Libc().write(fd, parts[0].iov_base, std::min(taken, parts[0].iov_len));
}

}  // namespace
}  // namespace velmar_phone

#pragma GCC visibility push(default)
extern "C" {

using namespace velmar_phone;

// Declares `name`, the argument after `last` of a call that libc declares with "...". Where a
// program gives none the value is any, and libc does not look at it.
#define OPTIONAL_ARGUMENT(type, name, last) \
    va_list rest;                           \
    va_start(rest, last);                   \
    type name = va_arg(rest, type);         \
    va_end(rest)

// Takes over `call`, which has `path` among its parameters and is handed on with `at` in its place.
#define PATH_CALL(type, call, parameters, name, last, arguments)                   \
    type call parameters {                                                         \
        return OnPath(name, path, last,                                            \
                      [&](const PhonePath& at) { return Libc().call arguments; }); \
    }

PATH_CALL(int, access, (const char* path, int mode), "access", kFollow, (at, mode))
PATH_CALL(char*, bindtextdomain, (const char* domain, const char* path), "bindtextdomain", kFollow,
          (domain, at))
PATH_CALL(int, chdir, (const char* path), "chdir", kFollow, (at))
PATH_CALL(int, chmod, (const char* path, mode_t mode), "chmod", kFollow, (at, mode))
PATH_CALL(int, fchmodat, (int fd, const char* path, mode_t mode, int flags), "chmod",
          ByFlags(flags), (fd, at, mode, flags))
PATH_CALL(int, lstat, (const char* path, struct stat* status), "stat", kKeep, (at, status))
PATH_CALL(int, lstat64, (const char* path, struct stat64* status), "stat", kKeep, (at, status))
PATH_CALL(int, mkdir, (const char* path, mode_t mode), "mkdir", kKeep, (at, mode))
PATH_CALL(ssize_t, readlink, (const char* path, char* to, size_t size), "readlink", kKeep,
          (at, to, size))
PATH_CALL(int, remove, (const char* path), "unlink", kKeep, (at))
PATH_CALL(int, rmdir, (const char* path), "rmdir", kKeep, (at))
PATH_CALL(int, stat, (const char* path, struct stat* status), "stat", kFollow, (at, status))
PATH_CALL(int, statvfs, (const char* path, struct statvfs* to), "statvfs", kFollow, (at, to))
PATH_CALL(int, symlink, (const char* target, const char* path), "symlink", kKeep, (target, at))
PATH_CALL(int, truncate, (const char* path, off_t size), "truncate", kFollow, (at, size))
PATH_CALL(int, unlink, (const char* path), "unlink", kKeep, (at))
PATH_CALL(int, unlinkat, (int fd, const char* path, int flags), "unlink", kKeep, (fd, at, flags))
PATH_CALL(int, utimensat, (int fd, const char* path, const timespec times[2], int flags), "utime",
          ByFlags(flags), (fd, at, times, flags))
// The visitor gets the workstation's paths, which name the same files.
PATH_CALL(int, nftw64, (const char* path, __nftw64_func_t visit, int fds, int flags), "nftw", kKeep,
          (at, visit, fds, flags))

int link(const char* from, const char* to) {
    return OnTwoPaths("link", from, to, Libc().link);
}

int rename(const char* from, const char* to) {
    return OnTwoPaths("rename", from, to, Libc().rename);
}

int open(const char* path, int flags, ...) {
    OPTIONAL_ARGUMENT(mode_t, mode, flags);
    return Open(path, flags, [&](auto& at) { return Libc().open(at, flags, mode); });
}

int open64(const char* path, int flags, ...) {
    OPTIONAL_ARGUMENT(mode_t, mode, flags);
    return Open(path, flags, [&](auto& at) { return Libc().open64(at, flags, mode); });
}

int openat(int folder, const char* path, int flags, ...) {
    OPTIONAL_ARGUMENT(mode_t, mode, flags);
    return Open(path, flags, [&](auto& at) { return Libc().openat(folder, at, flags, mode); });
}

// What programs compiled with checks of glibc call in the place of open, open64 and read.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): glibc's names.
int __open_2(const char* path, int flags) {
    return open(path, flags);
}

int __open64_2(const char* path, int flags) {
    return open64(path, flags);
}

ssize_t __read_chk(int fd, void* data, size_t size, size_t room) {
    if (size > room) abort();
    return read(fd, data, size);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

FILE* fopen(const char* path, const char* mode) {
    return OpenStream(path, mode, Libc().fopen);
}

FILE* fopen64(const char* path, const char* mode) {
    return OpenStream(path, mode, Libc().fopen64);
}

int mkstemp64(char* path) {
    return OnPath("open", path, kKeep, [&](auto& at) {
        const int fd = Libc().mkstemp64(const_cast<char*>(static_cast<const char*>(at)));
        if (fd >= 0) CopyName(at, path);
        return fd;
    });
}

char* mkdtemp(char* path) {
    return OnPath("mkdir", path, kKeep, [&](auto& at) {
        char* made = Libc().mkdtemp(const_cast<char*>(static_cast<const char*>(at)));
        return made == nullptr ? nullptr : CopyName(at, path);
    });
}

// The program sees the phone's path.
char* realpath(const char* path, char* resolved) {
    return OnPath("realpath", path, kFollow, [&](auto& at) {
        char* found = Libc().realpath(at, resolved);
        if (found != nullptr && at.phone != nullptr) StripRoot(*at.phone, found);
        return found;
    });
}

// A path that leads nowhere gets libc's own message.
void* dlopen(const char* path, int mode) {
    return Libc().dlopen(PhonePath(path, kFollow), mode);
}

// As in the kernel, a close that fails has closed the descriptor all the same.
int close(int fd) {
    const auto hit = TakeDescriptorFault("close", fd);
    ForgetDescriptor(fd);
    const int result = Libc().close(fd);
    return hit ? ResultOf(*hit) : result;
}

int dup(int fd) {
    return CopyDescriptor(fd, Libc().dup(fd));
}

int dup2(int fd, int copy) {
    return CopyDescriptor(fd, Libc().dup2(fd, copy));
}

int fchmod(int fd, mode_t mode) {
    const auto hit = TakeDescriptorFault("chmod", fd);
    return hit ? ResultOf(*hit) : Libc().fchmod(fd, mode);
}

// libc closes the descriptor inside.
int fclose(FILE* stream) {
    ForgetDescriptor(fileno(stream));
    return Libc().fclose(stream);
}

int fcntl(int fd, int command, ...) {
    OPTIONAL_ARGUMENT(void*, argument, command);
    const int result = Libc().fcntl(fd, command, argument);
    const bool is_copy = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    return is_copy ? CopyDescriptor(fd, result) : result;
}

int fstat(int fd, struct stat* status) {
    const auto hit = TakeDescriptorFault("stat", fd);
    return hit ? ResultOf(*hit) : Libc().fstat(fd, status);
}

int fstat64(int fd, struct stat64* status) {
    const auto hit = TakeDescriptorFault("stat", fd);
    return hit ? ResultOf(*hit) : Libc().fstat64(fd, status);
}

int ioctl(int fd, unsigned long request, ...) {
    OPTIONAL_ARGUMENT(void*, argument, request);
    const Device* device = FindDevice(fd);
    if (device == nullptr || !device->IsBoot()) return Libc().ioctl(fd, request, argument);
    if (const auto hit = TakeDescriptorFault("ioctl", fd)) return ResultOf(*hit);
    const int state = device->phone->state->boot_state;
    if (request != kBootStateIoctl) return Failure(ENOTTY);
    return state >= 0 ? state : Failure(EIO);
}

// A wait that a change of the modem's state has ended takes the change's packet off the boot
// device, so that each change ends one wait.
int poll(pollfd* fds, nfds_t count, int timeout_ms) {
    for (nfds_t i = 0; i < count; ++i) {
        const auto hit = TakeDeviceFault("poll", fds[i].fd);
        if (!hit) continue;
        for (nfds_t k = 0; k < count; ++k) fds[k].revents = 0;
        fds[i].revents = static_cast<short>(hit->length);
        return ResultOf({hit->error, 1});
    }
    const int ready = Libc().poll(fds, count, timeout_ms);
    for (nfds_t i = 0; ready > 0 && i < count; ++i) {
        const Device* device = FindDevice(fds[i].fd);
        const bool is_event = (fds[i].revents & (POLLIN | POLLRDNORM)) != 0;
        if (device == nullptr || !device->IsBoot() || !is_event) continue;
        recv(fds[i].fd, nullptr, 0, MSG_DONTWAIT);
    }
    return ready;
}

ssize_t read(int fd, void* data, size_t size) {
    const Device* device = FindDevice(fd);
    if (device != nullptr && device->access == O_WRONLY) return Failure(EBADF);
    if (const auto result = EndBefore("read", fd, &size)) return *result;
    const ssize_t result = Libc().read(fd, data, size);
    if (result > 0 && device != nullptr && device->IsChannel())
        ++device->phone->state->channel_reads;
    return result;
}

// Faults hit the devices that are waited for to be read.
int select(int count, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
    for (int fd = 0; in != nullptr && fd < std::min(count, FD_SETSIZE); ++fd) {
        const auto hit = FD_ISSET(fd, in) ? TakeDeviceFault("select", fd) : std::nullopt;
        if (!hit) continue;
        for (fd_set* set : {in, out, except}) {
            if (set != nullptr) FD_ZERO(set);
        }
        return ResultOf(*hit);
    }
    return Libc().select(count, in, out, except, timeout);
}

// Reads one file and writes the other.
ssize_t sendfile(int target, int source, off_t* offset, size_t size) {
    if (const auto result = EndBefore("read", source, &size)) return *result;
    if (const auto result = EndBefore("write", target, &size)) return *result;
    return Libc().sendfile(target, source, offset, size);
}

ssize_t write(int fd, const void* data, size_t size) {
    const iovec part = {const_cast<void*>(data), size};
    return WriteParts(fd, &part, 1);
}

ssize_t writev(int fd, const iovec* parts, int count) {
    return WriteParts(fd, parts, count);
}

}  // extern "C"
#pragma GCC visibility pop
