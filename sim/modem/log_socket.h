#pragma once

#include <functional>
#include <mutex>
#include <thread>

#include "android-base/unique_fd.h"

#include "sim/modem/event.h"
#include "sim/modem/phone_folder.h"

namespace velmar_sim {

// One line of the phone's log: an event of the kind kLog. Its text may hold line feeds.
using LogLine = Event;

// Receives the log of a simulated phone. Its programs wait for that no longer than until this has
// been scheduled: a thread reads each line at once, so that the reader must not wait for anything.
class LogSocket {
  public:
    // Gets the lines one after the other, in the order in which they were written. Any thread.
    using Reader = std::function<void(const LogLine&)>;

    // Takes the place of whoever received the log of `folder` before. Throws std::runtime_error.
    LogSocket(const PhoneFolder& folder, Reader line_reader);
    ~LogSocket();
    LogSocket(const LogSocket&) = delete;
    LogSocket& operator=(const LogSocket&) = delete;

    // Hands over all that has been written so far. Any thread, but not from the reader.
    void Drain();

  private:
    void Run();

    const Reader reader;
    const android::base::unique_fd socket;
    const android::base::unique_fd stop_fd;
    std::mutex lock;
    std::thread thread;
};

}  // namespace velmar_sim
