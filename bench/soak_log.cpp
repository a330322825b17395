#include "bench/soak_log.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace velmar_bench {

namespace {

constexpr std::chrono::seconds kPatience{20};
constexpr size_t kKeptLines = 20;
constexpr char kTag[] = "velmar ";
constexpr size_t kPriorityAt = sizeof(kTag) - 1;
constexpr char kRadioProgress[] = "libsitril-client I ";
constexpr char kLettersOfLevels[] = "EID";

constexpr const char* kNeverLogged[] = {
        "Failed to send request", "Failed to open",        "Fail to open",
        "IO handler timeout",     "Invalid modem state",   "unknown poll event",
        "does not exist or",      "File transfer failed.", "Failed to write temp file correctly",
};

}  // namespace

SoakLog::SoakLog()
    : counts({{kStateChanged, 0}, {kChannelLost, 0}, {kAnswerTaken, 0}, {kModemLine, 0}}) {}

void SoakLog::Take(const std::string& written) {
    if (written.empty()) return;
    const std::lock_guard<std::mutex> guard(lock);
    last_lines.push_back(written);
    if (last_lines.size() > kKeptLines) last_lines.pop_front();
    if (fault.empty()) fault = FaultIn(written);
    Count(written);
}

void SoakLog::Count(const std::string& line) {
    for (auto& [text, count] : counts) {
        if (line.find(text) == std::string::npos) continue;
        ++count;
        grown.notify_all();
    }
}

// What is wrong with the line; empty when nothing is.
std::string SoakLog::FaultIn(const std::string& line) const {
    if (line.rfind(kRadioProgress, 0) == 0) return "";
    if (line.rfind(kTag, 0) != 0) return "not a line of the service's: " + line;
    for (const char* text : kNeverLogged) {
        if (line.find(text) != std::string::npos) return "a failure was logged: " + line;
    }
    const size_t at = line.find(kModemLine);
    if (at == std::string::npos) return "";
    const uint64_t number = counts.at(kModemLine);
    const bool is_next = line.compare(at + sizeof(kModemLine) - 1, std::string::npos,
                                      std::to_string(number) + "\n") == 0;
    if (is_next && line[kPriorityAt] == kLettersOfLevels[LevelOfModemLine(number)]) return "";
    return "expected the modem's line " + std::to_string(number) + " in its level: " + line;
}

void SoakLog::Await(const std::string& text, uint64_t count) {
    std::unique_lock<std::mutex> guard(lock);
    if (grown.wait_for(guard, kPatience, [&] { return counts.at(text) >= count; })) return;
    throw std::runtime_error("expected \"" + text + "\" " + std::to_string(count) +
                             " times in the log, found " + std::to_string(counts.at(text)));
}

void SoakLog::Check() {
    const std::lock_guard<std::mutex> guard(lock);
    if (!fault.empty()) throw std::runtime_error(fault);
}

std::string SoakLog::LastLines() {
    const std::lock_guard<std::mutex> guard(lock);
    std::string text;
    for (const std::string& line : last_lines) text += "    " + line;
    return text;
}

}  // namespace velmar_bench
