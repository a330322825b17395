// The calls on open descriptors: devices behave as devices, faults strike. A descriptor that is no
// device costs a look at its mark.

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

#include "device.h"
#include "interpose.h"

// The symbols are libc's own, whatever a program may not call its functions.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)

// Those that libc exports and its headers keep to themselves, or declare as variadic: the optional
// argument is passed as any other where the simulator runs, and not looked at where it is missing.
using Control = int(int, int, void*);
extern "C" decltype(::read) __read;
extern "C" decltype(::write) __write;
extern "C" decltype(::pread64) __pread64;
extern "C" decltype(::pwrite64) __pwrite64;
extern "C" decltype(::poll) __poll;
extern "C" decltype(::select) __select;
extern "C" decltype(::close) __close;
extern "C" decltype(::dup2) __dup2;
extern "C" decltype(::fclose) _IO_fclose;
extern "C" ssize_t __read_chk(int, void*, size_t, size_t);
extern "C" ssize_t __pread_chk(int, void*, size_t, off_t, size_t);
extern "C" ssize_t __pread64_chk(int, void*, size_t, off64_t, size_t);
extern "C" int __poll_chk(pollfd*, nfds_t, int, size_t);
extern "C" int __ppoll_chk(pollfd*, nfds_t, const timespec*, const sigset_t*, size_t);
extern "C" int __fxstat(int, int, struct stat*);
extern "C" int __fxstat64(int, int, struct stat64*);

namespace velmar_phone {
namespace {

using Set = unsigned long;
constexpr int kSetBits = 8 * sizeof(Set);

// The words of a descriptor set; libc's FD_ISSET refuses descriptors past its own set's size.
bool IsIn(const fd_set* set, int fd) {
    if (set == nullptr) return false;
    return (reinterpret_cast<const Set*>(set)[fd / kSetBits] >> (fd % kSetBits) & 1) != 0;
}

// Only devices are hit where they are waited for.
bool TakeWaitFault(const char* call, int fd, FaultHit* hit) {
    return FindDevice(fd) != nullptr && TakeDescriptorFault(call, fd, hit);
}

// Result of a wait that a fault has hit.
int WaitResult(const FaultHit& hit) {
    if (hit.error == 0) return hit.length;
    errno = hit.error;
    return -1;
}

bool TakePollFault(pollfd* fds, unsigned long count, FaultHit* hit) {
    for (unsigned long i = 0; i < count; ++i) {
        if (!TakeWaitFault("poll", fds[i].fd, hit)) continue;
        for (unsigned long k = 0; k < count; ++k) fds[k].revents = 0;
        return true;
    }
    return false;
}

int AfterPoll(const pollfd* fds, unsigned long count, int ready) {
    for (unsigned long i = 0; ready > 0 && i < count; ++i) {
        if ((fds[i].revents & (POLLIN | POLLRDNORM)) != 0) ConsumeEvent(fds[i].fd);
    }
    return ready;
}

bool TakeSelectFault(int count, std::initializer_list<fd_set*> sets, FaultHit* hit) {
    const auto is_hit = [&](int fd) {
        const auto has_it = [fd](const fd_set* set) { return IsIn(set, fd); };
        return std::any_of(sets.begin(), sets.end(), has_it) && TakeWaitFault("select", fd, hit);
    };
    int fd = 0;
    while (fd < count && !is_hit(fd)) ++fd;
    if (fd >= count) return false;
    for (fd_set* set : sets) {
        if (set != nullptr) memset(set, 0, sizeof(Set) * ((count + kSetBits - 1) / kSetBits));
    }
    return true;
}

int AfterSelect(int count, const fd_set* in, int ready) {
    for (int fd = 0; ready > 0 && fd < count; ++fd) {
        if (IsIn(in, fd)) ConsumeEvent(fd);
    }
    return ready;
}

int StateOf(const Device& device) {
    const int state = device.phone->state->boot_state.load();
    if (state >= 0) return state;
    errno = EIO;
    return -1;
}

ssize_t WriteTo(Device* device, int fd, const void* data, size_t size) {
    const iovec part = {const_cast<void*>(data), size};
    return WriteDevice(device, fd, &part, 1);
}

ssize_t WriteTo(Device* device, int fd, const iovec* parts, int count) {
    return WriteDevice(device, fd, parts, count);
}

// Tells the modem that a message was read.
ssize_t AfterRead(int fd, ssize_t size) {
    const Device* device = size > 0 ? FindDevice(fd) : nullptr;
    if (device != nullptr && device->path.View() == kChannelDevice) {
        device->phone->state->channel_reads.fetch_add(1, std::memory_order_release);
    }
    return size;
}

int AfterCopy(int fd, int copy) {
    CopyDeviceMark(fd, copy);
    return copy;
}

}  // namespace

#define TRANSFER(arity, symbol, call)        \
    TransferLimit limit(call, a);            \
    if (limit.Ends()) return limit.Result(); \
    limit.Shorten(&b, &c);                   \
    return VELMAR_NEXT(arity, symbol);
#define TRANSFER_CALL(arity, symbol, call) \
    VELMAR_ENTRY(arity, symbol) {          \
        TRANSFER(arity, symbol, call)      \
    }

#define READ_CALL(arity, symbol)                         \
    VELMAR_ENTRY(arity, symbol) {                        \
        TransferLimit limit("read", a);                  \
        if (limit.Ends()) return limit.Result();         \
        limit.Shorten(&b, &c);                           \
        return AfterRead(a, VELMAR_NEXT(arity, symbol)); \
    }

READ_CALL(3, read)
READ_CALL(3, __read)
READ_CALL(4, __read_chk)
TRANSFER_CALL(4, pread, "read")
TRANSFER_CALL(4, pread64, "read")
TRANSFER_CALL(4, __pread64, "read")
TRANSFER_CALL(5, __pread_chk, "read")
TRANSFER_CALL(5, __pread64_chk, "read")
TRANSFER_CALL(3, readv, "read")
TRANSFER_CALL(4, preadv, "read")
TRANSFER_CALL(4, preadv64, "read")
TRANSFER_CALL(5, preadv2, "read")
TRANSFER_CALL(5, preadv64v2, "read")
TRANSFER_CALL(4, pwrite, "write")
TRANSFER_CALL(4, pwrite64, "write")
TRANSFER_CALL(4, __pwrite64, "write")
TRANSFER_CALL(4, pwritev, "write")
TRANSFER_CALL(4, pwritev64, "write")
TRANSFER_CALL(5, pwritev2, "write")
TRANSFER_CALL(5, pwritev64v2, "write")

// The writes that devices know.
#define WRITE_CALL(symbol)                                                   \
    VELMAR_ENTRY(3, symbol) {                                                \
        if (Device* device = FindDevice(a)) return WriteTo(device, a, b, c); \
        TRANSFER(3, symbol, "write")                                         \
    }

WRITE_CALL(write)
WRITE_CALL(__write)
WRITE_CALL(writev)

// A copy inside the kernel reads one file and writes the other.
#define KERNEL_COPY_CALL(arity, symbol, source, target, offset, size) \
    VELMAR_ENTRY(arity, symbol) {                                     \
        const TransferLimit read_limit("read", source);               \
        if (read_limit.Ends()) return read_limit.Result();            \
        const TransferLimit write_limit("write", target);             \
        if (write_limit.Ends()) return write_limit.Result();          \
        read_limit.Shorten(&offset, &size);                           \
        write_limit.Shorten(&offset, &size);                          \
        return VELMAR_NEXT(arity, symbol);                            \
    }

KERNEL_COPY_CALL(4, sendfile, b, a, c, d)
KERNEL_COPY_CALL(4, sendfile64, b, a, c, d)
KERNEL_COPY_CALL(6, copy_file_range, a, c, b, e)

#define POLL_CALL(arity, symbol)                               \
    VELMAR_ENTRY(arity, symbol) {                              \
        FaultHit hit;                                          \
        if (TakePollFault(a, b, &hit)) return WaitResult(hit); \
        return AfterPoll(a, b, VELMAR_NEXT(arity, symbol));    \
    }

POLL_CALL(3, poll)
POLL_CALL(3, __poll)
POLL_CALL(4, __poll_chk)
POLL_CALL(4, ppoll)
POLL_CALL(5, __ppoll_chk)

#define SELECT_CALL(arity, symbol)                                       \
    VELMAR_ENTRY(arity, symbol) {                                        \
        FaultHit hit;                                                    \
        if (TakeSelectFault(a, {b, c, d}, &hit)) return WaitResult(hit); \
        return AfterSelect(a, b, VELMAR_NEXT(arity, symbol));            \
    }

SELECT_CALL(5, select)
SELECT_CALL(5, __select)
SELECT_CALL(6, pselect)

using DeviceControl = int(int, unsigned long, void*);
VELMAR_ENTRY_AS(3, ioctl, DeviceControl) {
    const Device* device = FindDevice(a);
    if (device == nullptr || !device->is_boot) return next_ioctl(a, b, c);
    FaultHit hit;
    if (TakeDescriptorFault("ioctl", a, &hit)) return WaitResult(hit);
    if (b == kBootStateIoctl) return StateOf(*device);
    errno = ENOTTY;
    return -1;
}

#define FILE_CALL(arity, symbol, fd, call)                               \
    VELMAR_ENTRY(arity, symbol) {                                        \
        return FailsByFault(call, fd) ? -1 : VELMAR_NEXT(arity, symbol); \
    }

FILE_CALL(2, fstat, a, "stat")
FILE_CALL(2, fstat64, a, "stat")
FILE_CALL(3, __fxstat, b, "stat")
FILE_CALL(3, __fxstat64, b, "stat")
FILE_CALL(2, fchmod, a, "chmod")

// As in the kernel, a close that fails has closed the descriptor all the same.
#define CLOSE_CALL(symbol)                                         \
    VELMAR_ENTRY(1, symbol) {                                      \
        FaultHit hit;                                              \
        const bool is_hit = TakeDescriptorFault("close", a, &hit); \
        DropDeviceMark(a);                                         \
        const int result = next_##symbol(a);                       \
        if (!is_hit) return result;                                \
        errno = hit.error != 0 ? hit.error : EIO;                  \
        return -1;                                                 \
    }

CLOSE_CALL(close)
CLOSE_CALL(__close)

// From inside libc, fclose closes unseen.
#define STREAM_CLOSE_CALL(symbol)  \
    VELMAR_ENTRY(1, symbol) {      \
        DropDeviceMark(fileno(a)); \
        return next_##symbol(a);   \
    }

STREAM_CLOSE_CALL(fclose)
STREAM_CLOSE_CALL(_IO_fclose)

VELMAR_ENTRY(3, close_range) {
    if ((static_cast<unsigned>(c) & CLOSE_RANGE_CLOEXEC) == 0) DropDeviceMarks(a, b);
    return next_close_range(a, b, c);
}

VELMAR_ENTRY(1, closefrom) {
    DropDeviceMarks(static_cast<unsigned>(std::max(a, 0)), UINT_MAX);
    next_closefrom(a);
}

#define COPY_CALL(arity, symbol)                         \
    VELMAR_ENTRY(arity, symbol) {                        \
        return AfterCopy(a, VELMAR_NEXT(arity, symbol)); \
    }

COPY_CALL(1, dup)
COPY_CALL(2, dup2)
COPY_CALL(2, __dup2)
COPY_CALL(3, dup3)

#define CONTROL_CALL(symbol)                                       \
    VELMAR_ENTRY_AS(3, symbol, Control) {                          \
        const int result = next_##symbol(a, b, c);                 \
        const bool is_copy = b == F_DUPFD || b == F_DUPFD_CLOEXEC; \
        return is_copy ? AfterCopy(a, result) : result;            \
    }

CONTROL_CALL(fcntl)
CONTROL_CALL(fcntl64)
CONTROL_CALL(__fcntl)

}  // namespace velmar_phone

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)
