#pragma once

#include <deque>
#include <optional>
#include <string>

#include "sim/modem/event.h"
#include "sim/modem/phone_folder.h"
#include "sim/tool/scenario.pb.h"

namespace velmar_sim {

// One line: the request's number and its bytes, decoded if they are an entry of the GNSS
// coexistence configuration. Any thread.
std::string DescribeRadioRequest(const RadioRequest& request);

// One line: who speaks to whom, and what. Any thread.
std::string DescribeRadioCall(const RadioCall& call);

// The radio of a simulated phone, behind the client library that the service loads. Operations
// belong to the main thread; those that fail throw std::runtime_error.
class SimulatedRadio {
  public:
    // Both arguments are borrowed.
    SimulatedRadio(const PhoneFolder& phone_folder, EventStream* event_stream)
        : folder(phone_folder), events(event_stream) {}

    // How the radio behaves from now on.
    void Behave(const Radio& radio) const;

    // Shows what has reached the radio since the last look.
    void Look();

    // The oldest request that has not been taken yet; nothing when none has come.
    std::optional<RadioRequest> Take();

  private:
    const PhoneFolder& folder;
    EventStream* const events;
    std::deque<RadioRequest> requests;
    // How much of the list of calls has been looked at.
    std::streamoff position = 0;
};

}  // namespace velmar_sim
