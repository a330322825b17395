#pragma once

#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "android-base/unique_fd.h"

#include "sim/modem/event.h"
#include "sim/modem/phone_folder.h"

namespace velmar_sim {

// The driver behind the phone's thermal node, which takes each write by itself. It exists before
// the service starts. Operations may be called from any thread.
class ThermalDriver {
  public:
    // Begins to serve the node of `folder`. `events` is borrowed. Throws std::runtime_error.
    explicit ThermalDriver(const PhoneFolder& folder, EventStream* events = &NoWriters());
    ~ThermalDriver();
    ThermalDriver(const ThermalDriver&) = delete;
    ThermalDriver& operator=(const ThermalDriver&) = delete;

    // Takes what was written to the node and not taken before, each write by itself, oldest first.
    // A write that has returned is among it.
    std::vector<std::string> TakeWrites();

  private:
    void Run();
    void ReadWrites();
    bool ReadToEnd(const android::base::unique_fd& writer);

    EventStream* const events;
    const android::base::unique_fd listener;
    const android::base::unique_fd stop_fd;

    // Guards what stands below it.
    std::mutex lock;
    std::list<android::base::unique_fd> writers;
    std::vector<std::string> writes;

    std::thread thread;
};

}  // namespace velmar_sim
