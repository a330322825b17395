#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <memory>
#include <mutex>

// The message channel to the modem: a character device on which one write is one message and one
// read is one message.
//
// The IO thread opens, reads and closes the channel; every thread that sends opens it too and
// writes to it. Nothing is locked: writes of several threads may overlap, with each other and with
// a read.
class SitIoChannel {
  public:
    SitIoChannel() = default;

    // Opens the device unless it is open; waits for another thread that is opening it. Returns 0,
    // or -1 with a log line. Any thread.
    int OpenChannel();

    // Closes the channel if it is open. The device itself stays open until a write that is under
    // way has ended. Returns 0. IO thread only.
    int CloseChannel();

    // The descriptor, -1 while closed. Any thread.
    int GetFd();

    // Reads one message of at most `size` bytes; blocks until there is one. Returns its length, 0
    // at end of file, -1 for a null buffer, a closed channel or a failed read. IO thread only.
    int ReadFromChannel(char* buffer, int size);

    // Writes all `length` bytes; blocks until they are out. Returns 0, or -1 for null data, a
    // closed channel or a failed write, which may leave a part written. Any thread.
    int WriteToChannel(char* data, int length);

    SitIoChannel(const SitIoChannel&) = delete;
    SitIoChannel& operator=(const SitIoChannel&) = delete;

  protected:
    std::atomic<int> fd{-1};

  private:
    // The owner of `fd`, or null while closed. Any thread.
    std::shared_ptr<const android::base::unique_fd> ShareOwner();

    // Held while the channel is opened or closed: a driver may refuse a second opener.
    std::mutex lock;
    // Closes the descriptor when its last holder goes: the channel, and each thread that writes, so
    // that the number is not given to another file meanwhile. Guarded by `lock`.
    std::shared_ptr<const android::base::unique_fd> owner;
};
