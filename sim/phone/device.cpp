#include "device.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/unique_fd.h>

namespace velmar_phone {
namespace {

// The kernel hands out the lowest free number, so that only an unusual process gets past this.
constexpr int kMaxDescriptors = 65536;

// Holds several of the largest messages; the kernel may cap it, at more than one.
constexpr int kSendBufferBytes = 4 * kMaxMessage;

std::atomic<Device*> g_descriptor_table[kMaxDescriptors];

Device* InternDevice(Phone* phone, std::string_view path, int access) {
    Device* first = phone->devices.load();
    for (Device* device = first; device != nullptr; device = device->next) {
        if (device->path.View() == path && device->access == access) return device;
    }
    auto* device = static_cast<Device*>(AllocatePages(sizeof(Device)));
    device->phone = phone;
    device->path.Append(path);
    device->access = access;
    device->next = first;
    while (!phone->devices.compare_exchange_weak(device->next, device)) {
    }
    return device;
}

ssize_t SendPacket(int fd, const iovec* parts, size_t count) {
    msghdr packet = {};
    packet.msg_iov = const_cast<iovec*>(parts);
    packet.msg_iovlen = count;
    const ssize_t result = sendmsg(fd, &packet, MSG_NOSIGNAL);
    if (result < 0 && (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN)) errno = EIO;
    return result;
}

}  // namespace

bool ConnectTo(int fd, const PathText& path) {
    // A socket's address is shorter than a path may be, the name of an open descriptor is not.
    const android::base::unique_fd file(open(path.text, O_PATH | O_CLOEXEC));
    if (file < 0) return false;
    const PathText name = DescriptorName(file.get());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.text, name.length);
    const auto* target = reinterpret_cast<const sockaddr*>(&address);
    return TEMP_FAILURE_RETRY(connect(fd, target, sizeof(address))) == 0;
}

Device* FindDevice(int fd) {
    const bool is_in_table = fd >= 0 && fd < kMaxDescriptors;
    return is_in_table ? g_descriptor_table[fd].load(std::memory_order_acquire) : nullptr;
}

int OpenDevice(Phone* phone, const PathText& path, int flags) {
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd < 0) return -1;
    if (fd >= kMaxDescriptors) return Failure(EMFILE);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
    if (!ConnectTo(fd, path)) {
        if (errno == ECONNREFUSED || errno == EPROTOTYPE) errno = ENXIO;
        return -1;
    }
    if ((flags & O_CLOEXEC) == 0) fcntl(fd, F_SETFD, 0);
    if ((flags & O_NONBLOCK) != 0) fcntl(fd, F_SETFL, O_NONBLOCK);
    const std::string_view name = path.View().substr(phone->root.length);
    Device* device = InternDevice(phone, name, flags & O_ACCMODE);
    g_descriptor_table[fd].store(device, std::memory_order_release);
    return fd.release();
}

int CopyDescriptor(int fd, int copy) {
    const bool is_in_table = copy >= 0 && copy < kMaxDescriptors;
    if (is_in_table) g_descriptor_table[copy].store(FindDevice(fd), std::memory_order_release);
    return copy;
}

void ForgetDescriptor(int fd) {
    Device* device = FindDevice(fd);
    if (device == nullptr) return;
    g_descriptor_table[fd].store(nullptr, std::memory_order_release);
    device->missing.store(0);
}

ssize_t WriteDevice(Device* device, int fd, const iovec* parts, int count, size_t size,
                    size_t taken) {
    // The exchange gives what is kept to one writer alone.
    const size_t kept = device->missing.exchange(0) == size ? device->kept_size : 0;
    if (kept == 0 && taken == size) return SendPacket(fd, parts, static_cast<size_t>(count));
    if (kept + taken > kMaxMessage) return Failure(EMSGSIZE);
    size_t end = kept;
    for (size_t left = taken; left > 0; ++parts) {
        const size_t part = std::min(left, parts->iov_len);
        memcpy(device->kept + end, parts->iov_base, part);
        end += part;
        left -= part;
    }
    const iovec packet = {device->kept, end};
    const bool is_failed = taken == size && SendPacket(fd, &packet, 1) < 0;
    if (taken == size && !is_failed) return static_cast<ssize_t>(size);
    // The rest is still to come, or comes again.
    device->kept_size = is_failed ? kept : end;
    device->missing.store(is_failed ? size : size - taken);
    return is_failed ? -1 : static_cast<ssize_t>(taken);
}

}  // namespace velmar_phone
