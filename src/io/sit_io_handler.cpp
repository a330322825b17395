#include "io/sit_io_handler.h"

#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>

#include "base/log.h"
#include "handler/velmar_message_handler.h"

namespace {

// The largest message that can be received.
constexpr int kBufferSize = 65568;

constexpr unsigned int kOfflineSeconds = 2;
// The pause before the channel is reopened, and what it grows to while that fails.
constexpr useconds_t kReopenMicroseconds = 20000;
constexpr useconds_t kMaxReopenMicroseconds = 1000000;

}  // namespace

SitIoHandler::SitIoHandler(VelmarMessageHandler* message_handler)
    : handler(message_handler), channel(std::make_unique<SitIoChannel>()) {}

SitIoHandler::~SitIoHandler() {
    // The thread uses the buffer and the channel until it is joined.
    thread.reset();
}

bool SitIoHandler::Start() {
    if (!channel) {
        ALOGE("IO channel is not initialized.");
        return false;
    }
    if (!buffer) buffer.reset(new char[kBufferSize]);
    thread = std::make_unique<Thread>(this);
    // A thread that cannot be created gives a positive number and deliberately passes as success:
    // the service then runs on without it.
    if (thread->Start() < 0) {
        ALOGE("Thread is not initialized successfully.");
        return false;
    }
    ALOGI("IO handler started");
    return true;
}

void SitIoHandler::Run() {
    if (!channel) {
        ALOGE("IO channel is not initialized");
        return;
    }
    if (channel->OpenChannel() != 0) {
        ALOGE("Failed to open IO channel");
        return;
    }
    // Until the boot device is open IsModemOnline() is false and this loop would sleep 2 s.
    handler->WaitForBootDevice();
    int used_bytes = kBufferSize;
    useconds_t pause = kReopenMicroseconds;
    while (true) {
        if (!handler->IsModemOnline()) {
            sleep(kOfflineSeconds);
            pause = kReopenMicroseconds;
            continue;
        }
        int fd = channel->GetFd();
        if (fd < 0) {
            // Reopen only; do not close, since a sender may have reopened it.
            pause = std::min(pause * 2, kMaxReopenMicroseconds);
            usleep(pause);
            channel->OpenChannel();
            continue;
        }
        pause = kReopenMicroseconds;
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        if (select(fd + 1, &readable, nullptr, nullptr, nullptr) < 1) break;
        if (FD_ISSET(fd, &readable)) used_bytes = ReceiveMessage(used_bytes);
    }
    ALOGE("IO handler timeout");
    channel->CloseChannel();
    ALOGE("IO handler thread stopped");
}

int SitIoHandler::ReceiveMessage(int used_bytes) {
    // Handlers find zeros after a message. Only what the last one left needs clearing.
    memset(buffer.get(), 0, used_bytes);
    int length = channel->ReadFromChannel(buffer.get(), kBufferSize);
    if (length >= 1) {
        handler->ProcessReceivedMessage(buffer.get(), length);
        return length;
    }
    int error = errno;
    ALOGE("Read channel error, size:%d, errno:%d", length, error);
    if (length == 0 || (error != EINTR && error != EAGAIN)) {
        channel->CloseChannel();
        usleep(kReopenMicroseconds);
        channel->OpenChannel();
    }
    // A driver may have left something there before it failed.
    return kBufferSize;
}

int SitIoHandler::SendData(char* data, int length) {
    if (!channel) {
        ALOGE("IO channel is not initialized");
        // The caller is told success, although nothing was sent.
        return 0;
    }
    channel->OpenChannel();
    return channel->WriteToChannel(data, length);
}
