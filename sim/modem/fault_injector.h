#pragma once

#include <mutex>
#include <string>

#include "sim/modem/phone_folder.h"

namespace velmar_sim {

// A libc call of the phone's programs that is made to fail or to come out short: see
// velmar_phone::Fault.
struct FaultRule {
    std::string call;
    std::string path;
    int error = 0;
    int length = 0;
    int times = 1;
    int skip = 0;
};

// Makes calls of the phone's programs fail. Any thread.
class FaultInjector {
  public:
    // Throws std::runtime_error when the phone's state cannot be mapped.
    explicit FaultInjector(const PhoneFolder& folder) : state(folder.MapState()) {}

    // Throws std::runtime_error for a rule that cannot be, and when velmar_phone::kMaxFaults rules
    // have not hit all that they are to hit.
    void Add(const FaultRule& rule);
    void Clear();

    // How many calls the faults have still to hit.
    int Left() const;

  private:
    const std::shared_ptr<velmar_phone::PhoneState> state;
    std::mutex lock;
};

}  // namespace velmar_sim
