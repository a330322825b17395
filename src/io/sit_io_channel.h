#pragma once

#include <atomic>

// The message channel to the modem: a character device on which one write is one message and one
// read is one message.
//
// Nothing is locked. The IO thread opens, reads and closes the channel; every thread that sends
// opens it too and writes to it.
class SitIoChannel {
  public:
    SitIoChannel();
    ~SitIoChannel();

    // Opens the device unless it is open. Returns 0, or -1 with a log line. Any thread.
    int OpenChannel();

    // Closes the device if it is open. Returns 0. IO thread only.
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
    std::atomic<int> fd;
};
