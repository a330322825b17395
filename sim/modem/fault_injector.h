#pragma once

#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "sim/modem/event.h"
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
    // It need not hit anything.
    bool optional = false;
};

// Makes calls of the phone's programs fail. Any thread.
class FaultInjector {
  public:
    // Throws std::runtime_error when the phone's state cannot be mapped.
    // `events` is borrowed.
    explicit FaultInjector(const PhoneFolder& folder, EventStream* events = &NoWriters());

    // Throws std::runtime_error for a rule that cannot be, and when velmar_phone::kMaxFaults rules
    // have not hit all that they are to hit.
    void Add(const FaultRule& rule);

    // Takes back all rules.
    void Clear();

    // How many calls the faults have still to hit.
    int Left() const;

    // Tells of the calls that were hit since the last look.
    void Look();

    // "CALL PATH" for each rule that has hit nothing so far, but those that are optional or
    // cleared.
    std::vector<std::string> WithoutHit() const;

  private:
    // What one slot of the phone's state was given, and how many hits of it were told of.
    struct Slot {
        FaultRule rule;
        int hits = 0;
    };

    void LookAt(int slot);

    EventStream* const events;
    const std::shared_ptr<velmar_phone::PhoneState> state;
    mutable std::mutex lock;
    std::array<Slot, velmar_phone::kMaxFaults> slots;
};

}  // namespace velmar_sim
