#include "sim/tool/log_stream.h"

#include <algorithm>

#include "android-base/strings.h"

namespace velmar_sim {

LogStream::LogStream(const PhoneFolder& folder, EventStream* event_stream)
    : events(event_stream), socket(folder, [this](const LogLine& line) { Append(line); }) {}

void LogStream::Append(const LogLine& line) {
    events->Emit(line);
    {
        const std::lock_guard<std::mutex> guard(lock);
        lines.push_back(line);
    }
    grown.notify_all();
}

std::optional<size_t> LogStream::Find(size_t begin, const Matcher& matches,
                                      std::chrono::milliseconds timeout) {
    socket.Drain();
    std::unique_lock<std::mutex> guard(lock);
    size_t at = begin;
    const auto found = [&] {
        while (at < lines.size() && !matches(lines[at])) ++at;
        return at < lines.size();
    };
    if (!grown.wait_for(guard, timeout, found)) return std::nullopt;
    return at;
}

std::vector<LogLine> LogStream::From(size_t begin) {
    socket.Drain();
    const std::lock_guard<std::mutex> guard(lock);
    return {lines.begin() + static_cast<std::ptrdiff_t>(std::min(begin, lines.size())),
            lines.end()};
}

std::vector<LogLine> LogStream::Last(size_t count) {
    socket.Drain();
    const std::lock_guard<std::mutex> guard(lock);
    return {lines.end() - static_cast<std::ptrdiff_t>(std::min(count, lines.size())), lines.end()};
}

bool IsSanitizerReport(const LogLine& line) {
    if (line.tag != kStandardErrorTag) return false;
    for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                             "WARNING: ThreadSanitizer", "ThreadSanitizer: ", "runtime error: "}) {
        if (line.text.find(mark) != std::string::npos) return true;
    }
    return false;
}

std::string DescribeLogLine(const LogLine& line) {
    const std::string text =
            android::base::StringReplace(line.text, "\n", "\n                ", true);
    const std::string priority = line.priority == ' ' ? "" : std::string(1, line.priority) + ' ';
    return priority + line.tag + ": " + text;
}

}  // namespace velmar_sim
