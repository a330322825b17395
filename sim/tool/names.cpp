#include "sim/tool/names.h"

#include <signal.h>
#include <string.h>

#include <charconv>

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

std::optional<char> PriorityFromText(const std::string& text) {
    if (text.size() != 1) return std::nullopt;
    const std::string known = kPriorities;
    if (known.find(text[0]) != std::string::npos) return text[0];
    const size_t number = static_cast<size_t>(text[0] - kFirstPriority);
    if (text[0] < kFirstPriority || number >= known.size()) return std::nullopt;
    return known[number];
}

}  // namespace velmar_sim
