#include "sim/tool/names.h"

#include <signal.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>

namespace velmar_sim {

namespace {

constexpr char kPriorities[] = "VDIWEF";
constexpr char kFirstPriority = '2';
constexpr int kMaxError = 255;
constexpr mode_t kMaxMode = 07777;

}  // namespace

std::optional<int> SignalFromName(const std::string& name) {
    for (int signal = 1; signal < NSIG; ++signal) {
        if (SignalName(signal) == name) return signal;
    }
    return std::nullopt;
}

std::string SignalName(int signal) {
    const char* name = sigabbrev_np(signal);
    if (name == nullptr) return "signal " + std::to_string(signal);
    return std::string("SIG") + name;
}

std::optional<int> ErrorFromName(const std::string& name) {
    for (int error = 1; error <= kMaxError; ++error) {
        const char* known = strerrorname_np(error);
        if (known != nullptr && name == known) return error;
    }
    return std::nullopt;
}

std::optional<mode_t> ModeFromText(const std::string& text) {
    unsigned int mode = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, mode, 8);
    if (parsed.ec != std::errc() || parsed.ptr != end || mode > kMaxMode) return std::nullopt;
    return mode;
}

std::optional<std::string> BytesFromHex(const std::string& text) {
    std::string digits;
    std::remove_copy_if(text.begin(), text.end(), std::back_inserter(digits),
                        [](char one) { return one == ' ' || one == '\t'; });
    if (digits.empty() || digits.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        uint8_t byte = 0;
        const char* end = digits.data() + i + 2;
        if (std::from_chars(digits.data() + i, end, byte, 16).ptr != end) return std::nullopt;
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::optional<char> PriorityFromText(const std::string& text) {
    if (text.size() != 1) return std::nullopt;
    const std::string known = kPriorities;
    if (known.find(text[0]) != std::string::npos) return text[0];
    const size_t number = static_cast<size_t>(text[0] - kFirstPriority);
    if (text[0] < kFirstPriority || number >= known.size()) return std::nullopt;
    return known[number];
}

}  // namespace velmar_sim
