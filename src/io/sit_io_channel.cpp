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
    std::lock_guard<std::mutex> guard(lock);
    if (fd) return 0;
    int opened = open(kChannelDevice, O_RDWR);
    if (opened < 0) {
        ALOGE("Failed to open IO channel, fd: %d", opened);
        return -1;
    }
    fd = std::make_shared<const unique_fd>(opened);
    return 0;
}

int SitIoChannel::CloseChannel() {
    std::lock_guard<std::mutex> guard(lock);
    fd.reset();
    return 0;
}

std::shared_ptr<const unique_fd> SitIoChannel::HoldFd() {
    std::lock_guard<std::mutex> guard(lock);
    return fd;
}

int SitIoChannel::GetFd() {
    std::lock_guard<std::mutex> guard(lock);
    return fd ? fd->get() : -1;
}

int SitIoChannel::ReadFromChannel(char* buffer, int size) {
    int open_fd = GetFd();
    if (buffer == nullptr || open_fd < 0) return -1;
    while (true) {
        ssize_t count = read(open_fd, buffer, size);
        if (count >= 0) return static_cast<int>(count);
        if (!IsWorthRetrying(errno)) return -1;
        usleep(kRetryMicroseconds);
    }
}

int SitIoChannel::WriteToChannel(char* data, int length) {
    if (data == nullptr || GetFd() < 0) return -1;
    for (int written = 0; written < length;) {
        // Taken anew each time: the reader may have reopened the channel.
        std::shared_ptr<const unique_fd> open_fd = HoldFd();
        if (!open_fd) return -1;
        ssize_t count = write(open_fd->get(), data + written, length - written);
        if (count > 0) {
            written += static_cast<int>(count);
            continue;
        }
        if (count < 0 && !IsWorthRetrying(errno)) return -1;
        open_fd.reset();
        usleep(kRetryMicroseconds);
    }
    return 0;
}
