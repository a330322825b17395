#include "io/sit_io_channel.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "base/log.h"

using android::base::unique_fd;

namespace {

constexpr char kChannelDevice[] = "/dev/oem_ipc1";
constexpr useconds_t kRetryMicroseconds = 10000;

bool IsWorthRetrying(int error) {
    return error == EAGAIN || error == EINTR;
}

}  // namespace

int SitIoChannel::OpenChannel() {
    if (fd >= 0) return 0;
    std::lock_guard<std::mutex> guard(lock);
    if (fd >= 0) return 0;
    int opened = open(kChannelDevice, O_RDWR);
    if (opened < 0) {
        ALOGE("Failed to open IO channel, fd: %d", opened);
        return -1;
    }
    owner = std::make_shared<const unique_fd>(opened);
    fd = opened;
    return 0;
}

int SitIoChannel::CloseChannel() {
    std::lock_guard<std::mutex> guard(lock);
    fd = -1;
    owner.reset();
    return 0;
}

int SitIoChannel::GetFd() {
    return fd;
}

std::shared_ptr<const unique_fd> SitIoChannel::ShareOwner() {
    std::lock_guard<std::mutex> guard(lock);
    return owner;
}

int SitIoChannel::ReadFromChannel(char* buffer, int size) {
    int open_fd = fd;
    if (buffer == nullptr || open_fd < 0) return -1;
    while (true) {
        ssize_t count = read(open_fd, buffer, size);
        if (count >= 0) return static_cast<int>(count);
        if (!IsWorthRetrying(errno)) return -1;
        usleep(kRetryMicroseconds);
    }
}

int SitIoChannel::WriteToChannel(char* data, int length) {
    if (data == nullptr || fd < 0) return -1;
    for (int written = 0; written < length;) {
        // Taken anew each time: the reader may have reopened the channel.
        std::shared_ptr<const unique_fd> shared = ShareOwner();
        if (!shared) return -1;
        ssize_t count = write(shared->get(), data + written, length - written);
        if (count > 0) {
            written += static_cast<int>(count);
            continue;
        }
        if (count < 0 && !IsWorthRetrying(errno)) return -1;
        shared.reset();
        usleep(kRetryMicroseconds);
    }
    return 0;
}
