// Input: the text of a configuration file, which serves as both of the diagnostics' configurations.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_failure.h"
#include "fuzz_phone.h"

using velmar_message::VelmarMessage;

namespace {

constexpr char kStatConfig[] = "/data/vendor/radio/modem_stat.conf";
constexpr char kLoggingConfig[] = "/data/vendor/radio/modem_userspace_logging.conf";

using Request = std::string;

Request RequestOf(VelmarMessage message) {
    if (message.type() != velmar_message::REQUEST || !message.has_token()) {
        FailFuzzing("no request with a token: " + message.ShortDebugString());
    }
    message.clear_token();
    return message.ShortDebugString();
}

VelmarMessage MakeRequest(int id) {
    VelmarMessage message;
    message.set_type(velmar_message::REQUEST);
    message.set_message_id(id);
    return message;
}

// The non-empty pieces of `text` between any of `separators`.
std::vector<std::string> PiecesOf(const std::string& text, std::string_view separators) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (separators.find(c) == std::string_view::npos) {
            pieces.back() += c;
        } else if (!pieces.back().empty()) {
            pieces.emplace_back();
        }
    }
    if (pieces.back().empty()) pieces.pop_back();
    return pieces;
}

// Reads a decimal number after white space, whatever follows it. One that is too large saturates at
// 64 bits and then loses its upper half, as the C library has it.
bool ReadNumber(const std::string& text, int* number) {
    size_t at = text.find_first_not_of(" \t\v\f");
    if (at == std::string::npos) return false;
    const bool is_negative = text[at] == '-';
    if (is_negative || text[at] == '+') ++at;
    const size_t begin = at;
    const __int128 limit = static_cast<__int128>(std::numeric_limits<int64_t>::max()) + is_negative;
    __int128 value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        value = std::min<__int128>(value * 10 + (text[at] - '0'), limit);
    }
    if (at == begin) return false;
    *number = static_cast<int>(static_cast<int64_t>(is_negative ? -value : value));
    return true;
}

std::vector<Request> ExpectedStatRequests(const std::string& text) {
    std::vector<Request> requests;
    for (const std::string& entry : PiecesOf(text.c_str(), "|\r\n")) {
        const std::vector<std::string> fields = PiecesOf(entry, ":");
        if (fields.empty()) continue;
        int value = -1;
        int type = 0;
        const std::string list = fields.size() > 1 ? fields[1] : "";
        for (const std::string& parameter : PiecesOf(list, ",")) {
            int number = 0;
            if (parameter.size() < 3 || parameter[1] != '=') continue;
            if (!ReadNumber(parameter.substr(2), &number)) continue;
            if (parameter[0] == 'v') value = number;
            if (parameter[0] == 't') type = number;
        }
        VelmarMessage message = MakeRequest(VelmarMessage::kModemStatMessage);
        auto* request = message.mutable_modem_stat_message()->mutable_enable_request();
        request->set_module(fields[0]);
        if (value >= 0) request->set_value(value);
        if (type != 0) request->set_type(static_cast<uint32_t>(type));
        requests.push_back(message.ShortDebugString());
    }
    return requests;
}

std::vector<Request> ExpectedLoggingRequests(const std::string& text) {
    std::vector<Request> requests;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        VelmarMessage message = MakeRequest(VelmarMessage::kUserspaceLogMessage);
        if (end > begin) {
            message.mutable_userspace_log_message()->mutable_enable_request()->set_name(
                    text.substr(begin, end - begin));
        }
        requests.push_back(message.ShortDebugString());
        begin = end + 1;
    }
    return requests;
}

void Check(unsigned int command, std::vector<Request> expected) {
    FuzzHandler& handler = FuzzPhone::Get().handler();
    handler.requests.clear();
    const int status = handler.SendServiceRequest(command);
    if (status != 0) FailFuzzing("status: expected 0, got " + std::to_string(status));
    std::vector<Request> sent;
    for (const VelmarMessage& message : handler.requests) sent.push_back(RequestOf(message));
    if (sent == expected) return;
    const size_t at =
            std::mismatch(sent.begin(), sent.end(), expected.begin(), expected.end()).first -
            sent.begin();
    sent.resize(at + 1, "nothing");
    expected.resize(at + 1, "nothing");
    FailFuzzing("request " + std::to_string(at) + ": expected " + expected[at] + ", got " +
                sent[at]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const velmar_sim::PhoneFolder& folder = FuzzPhone::Get().folder();
    folder.WriteFile(kStatConfig, text);
    folder.WriteFile(kLoggingConfig, text);
    Check(kCommandDebugStatConfig, ExpectedStatRequests(text));
    Check(kCommandUserspaceLogEnable, ExpectedLoggingRequests(text));
    return 0;
}
