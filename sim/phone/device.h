#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <cstddef>

#include "phone.h"

// The phone's devices: every socket file of the phone is one. An open device is a connection to
// the listening AF_UNIX SOCK_SEQPACKET socket, so that one packet is one message of its driver.
//
// A table tells which descriptors are devices; the calls that open, copy and close descriptors keep
// it. Not seen: epoll, which reports a boot device's changes for as long as they are unread; and
// what stdio does with a device opened as a stream, which gets the socket's own errors.
namespace velmar_phone {

// The largest message of the channel, in bytes.
constexpr size_t kMaxMessage = 65568;

// One device, for all descriptors that have it open with the same access mode.
struct Device {
    Phone* phone;
    // As the phone names it.
    PathText path;
    // O_RDONLY, O_WRONLY or O_RDWR.
    int access;
    Device* next;
    // After a short write: what it has taken, and how many bytes the rest of its message has, or 0.
    std::atomic<size_t> missing;
    size_t kept_size;
    char kept[kMaxMessage];

    bool IsChannel() const { return path.View() == kChannelDevice; }
    bool IsBoot() const { return path.View() == kBootDevice; }
};

// Connects `fd`, an AF_UNIX socket, to the one that listens or reads at `path`. Returns whether it
// did, else sets errno. Any thread, signal handlers included.
bool ConnectTo(int fd, const PathText& path);

// Gives the device open as `fd`, or null for every other descriptor. Any thread.
Device* FindDevice(int fd);

// Opens the socket file `path`, which lies in `phone`, honouring the access mode, O_CLOEXEC and
// O_NONBLOCK of `flags`. Returns the descriptor, or -1 with errno ENXIO when nobody listens, ENOENT
// when the file is missing. Any thread, signal handlers included.
int OpenDevice(Phone* phone, const PathText& path, int flags);

// Notes in the table that `copy`, unless it is negative, stands for whatever `fd` stands for, and
// returns it. Any thread.
int CopyDescriptor(int fd, int copy);

// Notes that `fd`, which may be negative, is no device; called before it is closed. Any thread.
void ForgetDescriptor(int fd);

// Writes the first `taken` of the `size` bytes of the parts to a device. When these are all, they
// are one packet, and the result is as of write(2). A driver does not raise SIGPIPE: a modem that
// is gone gives EIO. When they are fewer, they are kept: a following write of exactly the bytes
// that are missing completes the packet, any other begins a new one and what was kept is lost, as
// half a message is no message. EMSGSIZE when a packet that comes in pieces is larger than
// kMaxMessage. Any thread, signal handlers included; but two short writes at once mix their bytes.
ssize_t WriteDevice(Device* device, int fd, const iovec* parts, int count, size_t size,
                    size_t taken);

}  // namespace velmar_phone
