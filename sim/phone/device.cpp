#include "device.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/unique_fd.h>

#include "faults.h"

namespace velmar_phone {

struct PendingWrite {
    size_t pages_size;
    size_t missing;
    size_t size;
    char bytes[];
};

namespace {

// The kernel hands out the lowest free number, so that only an unusual process gets past this.
constexpr int kMaxDescriptors = 65536;

// Holds several of the largest messages; the kernel may cap it, at more than one.
constexpr int kSendBufferBytes = 4 * 65568;

std::atomic<Device*> g_open_devices[kMaxDescriptors];

Device* InternDevice(Phone* phone, std::string_view path) {
    Device* first = phone->devices.load();
    for (Device* device = first; device != nullptr; device = device->next) {
        if (device->path.View() == path) return device;
    }
    auto* device = static_cast<Device*>(AllocatePages(sizeof(Device)));
    device->phone = phone;
    device->path.Append(path);
    device->is_boot = path == kBootDevice;
    device->next = first;
    while (!phone->devices.compare_exchange_weak(device->next, device)) {
    }
    return device;
}

bool ConnectTo(int fd, const char* path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    android::base::unique_fd folder;
    const char* name = strrchr(path, '/') + 1;
    if (strlen(path) < sizeof(address.sun_path)) {
        memcpy(address.sun_path, path, strlen(path));
    } else {
        // A socket's address is shorter than a path may be: go there by way of the folder.
        PathText text;
        text.Append({path, static_cast<size_t>(name - path)});
        folder.reset(open(text.text, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (folder < 0) return false;
        text.Cut(0);
        text.Append("/proc/self/fd/");
        text.AppendNumber(static_cast<uint64_t>(folder.get()));
        text.Append("/");
        if (!text.Append(name) || text.length >= sizeof(address.sun_path)) {
            errno = ENAMETOOLONG;
            return false;
        }
        memcpy(address.sun_path, text.text, text.length);
    }
    int result;
    do {
        result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

size_t TotalSize(const iovec* parts, int count) {
    size_t size = 0;
    for (int i = 0; i < count; ++i) size += parts[i].iov_len;
    return size;
}

void Free(PendingWrite* pending) {
    if (pending != nullptr) munmap(pending, pending->pages_size);
}

// Gathers what `before` holds (may be null) and the first `taken` bytes of the parts.
PendingWrite* Keep(const PendingWrite* before, const iovec* parts, int count, size_t taken) {
    const size_t kept = before == nullptr ? 0 : before->size;
    const size_t pages_size = sizeof(PendingWrite) + kept + taken;
    auto* pending = static_cast<PendingWrite*>(AllocatePages(pages_size));
    pending->pages_size = pages_size;
    pending->missing = TotalSize(parts, count) - taken;
    if (before != nullptr) memcpy(pending->bytes, before->bytes, kept);
    pending->size = kept;
    for (int i = 0; i < count && taken > 0; ++i) {
        const size_t part = std::min(taken, parts[i].iov_len);
        memcpy(pending->bytes + pending->size, parts[i].iov_base, part);
        pending->size += part;
        taken -= part;
    }
    return pending;
}

// Takes what an earlier short write kept, if a write of `size` bytes completes it. Taking leaves
// nothing for another thread, so that no lock is needed that a signal handler might find held.
PendingWrite* TakePending(Device* device, size_t size) {
    if (device->pending.load(std::memory_order_relaxed) == nullptr) return nullptr;
    PendingWrite* pending = device->pending.exchange(nullptr);
    if (pending == nullptr || pending->missing == size) return pending;
    Free(pending);
    return nullptr;
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

Device* FindDevice(int fd) {
    if (fd < 0 || fd >= kMaxDescriptors) return nullptr;
    return g_open_devices[fd].load(std::memory_order_acquire);
}

int OpenDevice(Phone* phone, const PathText& path, int flags) {
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd < 0) return -1;
    if (fd >= kMaxDescriptors) {
        errno = EMFILE;
        return -1;
    }
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
    if (!ConnectTo(fd, path.text)) {
        if (errno == ECONNREFUSED || errno == EPROTOTYPE) errno = ENXIO;
        return -1;
    }
    if ((flags & O_CLOEXEC) == 0) fcntl(fd, F_SETFD, 0);
    if ((flags & O_NONBLOCK) != 0) fcntl(fd, F_SETFL, O_NONBLOCK);
    Device* device = InternDevice(phone, path.View().substr(phone->root.length));
    g_open_devices[fd].store(device, std::memory_order_release);
    return fd.release();
}

void CopyDeviceMark(int fd, int copy) {
    if (copy < 0 || copy >= kMaxDescriptors || fd == copy) return;
    g_open_devices[copy].store(FindDevice(fd), std::memory_order_release);
}

void DropDeviceMarks(unsigned first, unsigned last) {
    const unsigned end = std::min<unsigned>(last, kMaxDescriptors - 1);
    for (unsigned fd = first; fd <= end; ++fd) {
        Device* device = g_open_devices[fd].load(std::memory_order_relaxed);
        if (device == nullptr) continue;
        g_open_devices[fd].store(nullptr, std::memory_order_release);
        Free(device->pending.exchange(nullptr));
    }
}

ssize_t WriteDevice(Device* device, int fd, const iovec* parts, int count) {
    // One part is left for what an earlier short write kept.
    iovec packet[16];
    if (count < 0 || count >= static_cast<int>(std::size(packet))) {
        errno = EINVAL;
        return -1;
    }
    const size_t size = TotalSize(parts, count);
    // An empty packet would be the end of the file for the modem; a driver takes no notice.
    if (size == 0) return 0;
    const TransferLimit limit("write", fd);
    if (limit.Ends()) return limit.Result();
    PendingWrite* pending = TakePending(device, size);
    if (limit.Hit() && limit.Length() < size) {
        Free(device->pending.exchange(Keep(pending, parts, count, limit.Length())));
        Free(pending);
        return static_cast<ssize_t>(limit.Length());
    }
    if (pending == nullptr) return SendPacket(fd, parts, static_cast<size_t>(count));
    packet[0] = {pending->bytes, pending->size};
    std::copy_n(parts, count, packet + 1);
    const ssize_t sent = SendPacket(fd, packet, static_cast<size_t>(count) + 1);
    if (sent < 0 && (errno == EINTR || errno == EAGAIN)) {
        Free(device->pending.exchange(pending));
        return -1;
    }
    Free(pending);
    return sent < 0 ? -1 : static_cast<ssize_t>(size);
}

void ConsumeEvent(int fd) {
    const Device* device = FindDevice(fd);
    if (device == nullptr || !device->is_boot) return;
    const int saved_errno = errno;
    char packet;
    if (recv(fd, &packet, sizeof(packet), MSG_DONTWAIT | MSG_TRUNC) < 0) errno = saved_errno;
}

}  // namespace velmar_phone
