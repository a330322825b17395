#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <string_view>

#include "phone.h"

// The phone's devices: every socket file of the phone is one. An open device is a connection to
// the listening AF_UNIX SOCK_SEQPACKET socket, so that one packet is one message of its driver.
//
// Marks of descriptors are kept for dup and its relatives and dropped by every libc call that
// closes. Not seen: epoll, which reports a boot device's changes for as long as they are unread;
// and what stdio does with a device opened as a stream, which gets the socket's own errors.
namespace velmar_phone {

// What a short write has taken so far, until the rest follows.
struct PendingWrite;

struct Device {
    Phone* phone;
    // As the phone names it.
    PathText path;
    bool is_boot;
    std::atomic<PendingWrite*> pending;
    Device* next;
};

// Gives the device open as `fd`, or null for every other descriptor. Any thread.
Device* FindDevice(int fd);

// Opens the socket file `path`, which lies in `phone`, honouring O_CLOEXEC and O_NONBLOCK of
// `flags`. Returns the descriptor, or -1 with errno ENXIO when nobody listens, ENOENT when the file
// is missing. Any thread, signal handlers included.
int OpenDevice(Phone* phone, const PathText& path, int flags);

// Lets `copy` stand for whatever `fd` stands for. Any thread.
void CopyDeviceMark(int fd, int copy);

// Makes `first` to `last` ordinary descriptors; called before they are closed. Any thread.
void DropDeviceMarks(unsigned first, unsigned last);

// The same for one; a negative number is no descriptor. Any thread.
inline void DropDeviceMark(int fd) {
    if (fd >= 0) DropDeviceMarks(static_cast<unsigned>(fd), static_cast<unsigned>(fd));
}

// Writes one packet to a device, as write(2), from at most 15 parts. A driver does not raise
// SIGPIPE: a modem that is gone gives EIO. A fault that makes a write short keeps the bytes taken;
// a following write of exactly the bytes that are missing completes the packet, any other begins a
// new one and what was kept is lost, as half a message is no message. Any thread, signal handlers
// included.
ssize_t WriteDevice(Device* device, int fd, const iovec* parts, int count);

// Takes one packet off a boot device that was found readable, so that each change of the modem's
// state wakes one wait; nothing for other devices. Keeps errno. Any thread.
void ConsumeEvent(int fd);

}  // namespace velmar_phone
