#include "sim/tool/simulated_radio.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "sim/ril/radio_layout.h"
#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

using std::chrono::milliseconds;

constexpr char kUnfinishedBehaviour[] = "/unfinished_radio";
constexpr char kSendCall[] = "RILC_Send";
// Between two looks at the list of calls.
constexpr milliseconds kPollInterval{2};
constexpr int kHexBase = 16;

constexpr unsigned int kGnssEntryRequest = 226;
constexpr size_t kGnssEntrySize = 10;

std::string AnswerLine(const RadioResponse& answer) {
    if (answer.none()) return "answer none\n";
    std::string line = "answer " + std::to_string(answer.error());
    if (answer.early()) line += " early";
    if (answer.twice()) line += " twice";
    if (answer.has_delay_ms()) line += " delay=" + std::to_string(answer.delay_ms());
    return line + "\n";
}

std::string FromHex(const std::string& digits) {
    std::string bytes;
    for (size_t at = 0; at + 1 < digits.size(); at += 2) {
        unsigned char byte = 0;
        std::from_chars(&digits[at], &digits[at] + 2, byte, kHexBase);
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

// The value of "NAME=VALUE" among the words of a call.
std::string ValueOf(const std::string& call, const std::string& name) {
    std::istringstream words(call);
    for (std::string word; words >> word;) {
        if (word.compare(0, name.size() + 1, name + "=") == 0) return word.substr(name.size() + 1);
    }
    return "";
}

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
    std::string text = radio.no_client() ? "open null\n" : "";
    for (const RadioResponse& answer : radio.answer()) text += AnswerLine(answer);
    folder.WriteFile(kUnfinishedBehaviour, text);
    std::filesystem::rename(folder.HostPath(kUnfinishedBehaviour),
                            folder.HostPath(velmar_radio::kBehaviourFile));
}

void SimulatedRadio::OnCall(const std::string& line) {
    std::istringstream words(line);
    long long time_ms = 0;
    std::string name;
    words >> time_ms >> name;
    Event event = {Event::Kind::kRadio, line.substr(line.find(name))};
    event.time = Clock::time_point(milliseconds(time_ms));
    if (name == kSendCall) {
        RadioRequest request;
        request.set_request(static_cast<uint32_t>(std::stoul(ValueOf(line, "request"))));
        request.set_data(FromHex(ValueOf(line, "data")));
        requests.push_back(request);
        event.text = DescribeRadioRequest(request);
    }
    events->Emit(event);
}

void SimulatedRadio::Look() {
    std::ifstream calls(folder.HostPath(velmar_radio::kCallsFile), std::ios::binary);
    calls.seekg(position);
    for (std::string line; std::getline(calls, line);) {
        position += static_cast<std::streamoff>(line.size() + 1);
        OnCall(line);
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
