#include "io/sit_io_channel.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "base/log.h"

namespace {

constexpr char kChannelDevice[] = "/dev/oem_ipc1";
constexpr useconds_t kRetryMicroseconds = 10000;

bool IsWorthRetrying(int error) {
    return error == EAGAIN || error == EINTR;
}

}  // namespace

SitIoChannel::SitIoChannel() : fd(-1) {}

SitIoChannel::~SitIoChannel() {
    CloseChannel();
}

int SitIoChannel::OpenChannel() {
    if (fd >= 0) return 0;
    int opened = open(kChannelDevice, O_RDWR);
    if (opened < 0) {
        ALOGE("Failed to open IO channel, fd: %d", opened);
        return -1;
    }
    // A sender and the reader may open at the same time; the one that comes second gives way.
    int closed = -1;
    if (!fd.compare_exchange_strong(closed, opened)) close(opened);
    return 0;
}

int SitIoChannel::CloseChannel() {
    int open_fd = fd.exchange(-1);
    if (open_fd >= 0) close(open_fd);
    return 0;
}

int SitIoChannel::GetFd() {
    return fd;
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
        // The descriptor is taken anew each time: the reader may have reopened the channel.
        ssize_t count = write(fd, data + written, length - written);
        // Release; pairs with the exchange in CloseChannel: orders the write before a later close.
        fd.fetch_add(0);
        if (count > 0) {
            written += static_cast<int>(count);
            continue;
        }
        if (count < 0 && !IsWorthRetrying(errno)) return -1;
        usleep(kRetryMicroseconds);
    }
    return 0;
}
