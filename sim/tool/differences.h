#pragma once

#include <string>
#include <vector>

#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/tool/scenario.pb.h"

// What a scenario expects against what there is. Differences are told in words that show both; an
// empty text is no difference. Main thread.
namespace velmar_sim {

// Two lines, to be put behind what differs.
std::string ExpectedActual(const std::string& expected, const std::string& actual);

// With `any_token` the token is not compared.
std::string MessageDifference(const velmar_message::VelmarMessage& expected,
                              const ReceivedMessage& actual, bool any_token);

std::string FileDifference(const FileState& expected, const PhoneFolder& folder);

std::string PropertyDifference(const PropertyState& expected, const PhoneFolder& folder);

std::string ThermalDifference(const ThermalWrites& expected,
                              const std::vector<std::string>& actual);

std::string RadioDifference(const RadioRequest& expected, const RadioRequest& actual);

}  // namespace velmar_sim
