#include "sim/tool/simulated_radio.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "google/protobuf/text_format.h"

#include "sim/ril/radio_layout.h"
#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

using google::protobuf::TextFormat;
using std::chrono::milliseconds;

constexpr char kUnfinishedRadio[] = "/unfinished_radio";
// Between two looks at the list of calls.
constexpr milliseconds kPollInterval{2};

constexpr unsigned int kGnssEntryRequest = 226;
constexpr size_t kGnssEntrySize = 10;

// The signed little-endian number of 16 bits at `offset`.
std::string NumberAt(const std::string& bytes, size_t offset) {
    const auto low = static_cast<uint8_t>(bytes[offset]);
    const auto high = static_cast<uint8_t>(bytes[offset + 1]);
    return std::to_string(static_cast<int16_t>(low | high << 8));
}

}  // namespace

std::string DescribeRadioRequest(const RadioRequest& request) {
    const std::string& data = request.data();
    std::string text = "request " + std::to_string(request.request()) + "  " + HexBytes(data);
    if (request.request() != kGnssEntryRequest || data.size() != kGnssEntrySize) return text;
    return text + "  kind " + std::to_string(data[0]) + ", band " + NumberAt(data, 2) + " value " +
           NumberAt(data, 4) + ", band " + NumberAt(data, 6) + " value " + NumberAt(data, 8);
}

void SimulatedRadio::Behave(const Radio& radio) const {
    folder.WriteFile(kUnfinishedRadio, radio.DebugString());
    std::filesystem::rename(folder.HostPath(kUnfinishedRadio),
                            folder.HostPath(velmar_radio::kRadioFile));
}

void SimulatedRadio::OnCall(RadioCall call) {
    Event event = {Event::Kind::kRadio};
    event.time = Clock::time_point(std::chrono::microseconds(call.time_us()));
    if (call.has_request()) {
        requests.push_back(call.request());
        event.text = DescribeRadioRequest(call.request());
    } else {
        event.text = call.function() + " ";
        call.clear_time_us();
        call.clear_function();
        event.text += ShortText(call);
    }
    events->Emit(event);
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
        OnCall(call);
    }
}

std::optional<RadioRequest> SimulatedRadio::Receive(milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (Look(); requests.empty(); Look()) {
        if (Clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(kPollInterval);
    }
    RadioRequest request = requests.front();
    requests.pop_front();
    return request;
}

std::optional<std::string> SimulatedRadio::LibraryFolder(const Phone& description) {
    if (description.no_radio_library()) return std::nullopt;
    const std::string variant =
            description.has_missing_entry_point()
                    ? velmar_radio::kVariantWithout + description.missing_entry_point()
                    : velmar_radio::kFullVariant;
    return std::string(velmar_radio::kLibraryFolder) + "/" + variant;
}

}  // namespace velmar_sim
