#include "sim/tool/simulated_radio.h"

#include <fstream>
#include <stdexcept>

#include "google/protobuf/text_format.h"

#include "sim/ril/radio_layout.h"
#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

using google::protobuf::TextFormat;

constexpr unsigned int kGnssEntryRequest = 226;
constexpr size_t kGnssEntrySize = 10;

// The signed little-endian number of 16 bits at `offset`.
std::string NumberAt(const std::string& bytes, size_t offset) {
    const auto low = static_cast<uint8_t>(bytes[offset]);
    const auto high = static_cast<uint8_t>(bytes[offset + 1]);
    return std::to_string(static_cast<int16_t>(low | high << 8));
}

}  // namespace

std::string DescribeRadioCall(const RadioCall& call) {
    if (call.has_response_to()) {
        return "radio -> velmar  response to request " + std::to_string(call.response_to()) +
               ": error " + std::to_string(call.error());
    }
    if (call.has_request()) return "velmar -> radio  " + DescribeRadioRequest(call.request());
    RadioCall arguments = call;
    arguments.clear_time_us();
    arguments.clear_function();
    return "velmar -> radio  " + call.function() + "  " + ShortText(arguments);
}

std::string DescribeRadioRequest(const RadioRequest& request) {
    const std::string& data = request.data();
    std::string text = "request " + std::to_string(request.request()) + "  " + HexBytes(data);
    if (request.request() != kGnssEntryRequest || data.size() != kGnssEntrySize) return text;
    return text + "  kind " + std::to_string(data[0]) + ", band " + NumberAt(data, 2) + " value " +
           NumberAt(data, 4) + ", band " + NumberAt(data, 6) + " value " + NumberAt(data, 8);
}

void SimulatedRadio::Behave(const Radio& radio) const {
    folder.ReplaceFile(velmar_radio::kRadioFile, radio.DebugString());
}

void SimulatedRadio::Look() {
    std::ifstream calls(folder.HostPath(velmar_radio::kCallsFile), std::ios::binary);
    calls.seekg(position);
    for (std::string line; std::getline(calls, line);) {
        position += static_cast<std::streamoff>(line.size() + 1);
        RadioCall call;
        if (!TextFormat::ParseFromString(line, &call)) {
            throw std::runtime_error("the radio's library wrote \"" + line + "\", expected a call");
        }
        Event event = {Event::Kind::kRadio, call.SerializeAsString()};
        event.time = Clock::time_point(std::chrono::microseconds(call.time_us()));
        events->Emit(event);
        if (call.has_request()) requests.push_back(call.request());
    }
}

std::optional<RadioRequest> SimulatedRadio::Take() {
    Look();
    if (requests.empty()) return std::nullopt;
    RadioRequest request = requests.front();
    requests.pop_front();
    return request;
}

}  // namespace velmar_sim
