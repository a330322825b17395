#pragma once

#include <memory>

#include "base/thread.h"
#include "io/sit_io_channel.h"

class VelmarMessageHandler;

// Reads the modem's messages on a thread of its own, the IO thread, while the modem is online, and
// hands each to the message handler; writes what the service sends.
class SitIoHandler : public Runnable {
  public:
    // Hands messages to `message_handler`, borrowed. Opens and starts nothing.
    explicit SitIoHandler(VelmarMessageHandler* message_handler);

    // Waits for the thread to end, then closes the channel.
    ~SitIoHandler() override;

    // The reader's loop; returns when the channel cannot be opened at first, or cannot be waited
    // on.
    void Run() override;

    // Starts the thread, which opens the channel. Returns false, with a log line, when there is no
    // channel object or the thread wrapper reports a negative error. Called by the main thread.
    bool Start();

    // Writes one message of `length` bytes, opening the channel first if it is closed. Returns 0,
    // or -1 when it cannot be written. Any thread.
    int SendData(char* data, int length);

    SitIoHandler(const SitIoHandler&) = delete;
    SitIoHandler& operator=(const SitIoHandler&) = delete;

  protected:
    VelmarMessageHandler* handler;
    std::unique_ptr<SitIoChannel> channel;
    std::unique_ptr<Thread> thread;
    std::unique_ptr<char[]> buffer;

  private:
    // Reads one message into the buffer, whose first `used_bytes` bytes are what the last read
    // left, and hands it on; reopens the channel when it cannot be read. Returns how many bytes of
    // the buffer it may have left used.
    int ReceiveMessage(int used_bytes);
};
