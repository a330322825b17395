#include "sim/tool/log_stream.h"

#include <algorithm>
#include <regex>
#include <utility>

#include "android-base/strings.h"

namespace velmar_sim {

namespace {

// "TAG P MM-DD HH:MM:SS  PID  TID ", in front of each line that the log writes.
const std::regex& LogHeader() {
    static const std::regex header(
            "([^\\n]{0,64}?) +([VDIWEF]) \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d +\\d+ +\\d+ ",
            std::regex::optimize);
    return header;
}

LogLine MakeLine(char priority, const std::string& tag, const std::string& text) {
    LogLine line = {Event::Kind::kLog, text, tag};
    line.priority = priority;
    return line;
}

}  // namespace

// Compiles the pattern before any thread parses: the C++ library notes, without a lock, what it
// looks up for a pattern, and main compiles those of the steps.
LogLineParser::LogLineParser(std::string plain_tag) : tag(std::move(plain_tag)) {
    LogHeader();
}

std::vector<LogLine> LogLineParser::Parse(const std::string& written) {
    std::smatch match;
    if (std::regex_search(written, match, LogHeader(), std::regex_constants::match_continuous)) {
        std::string text = match.suffix();
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return {MakeLine(match[2].str()[0], match[1], text)};
    }
    unfinished += written;
    std::vector<std::string> texts = android::base::Split(unfinished, "\n");
    unfinished = written.empty() ? "" : texts.back();
    if (!written.empty() || texts.back().empty()) texts.pop_back();
    std::vector<LogLine> lines;
    lines.reserve(texts.size());
    for (const std::string& text : texts) lines.push_back(MakeLine(' ', tag, text));
    return lines;
}

void LogStream::Append(const std::vector<LogLine>& more) {
    if (more.empty()) return;
    {
        const std::lock_guard<std::mutex> guard(lock);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    grown.notify_all();
}

std::optional<size_t> LogStream::Find(size_t begin, const Matcher& matches,
                                      std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(lock);
    size_t at = begin;
    const auto found = [&] {
        while (at < lines.size() && !matches(lines[at])) ++at;
        return at < lines.size();
    };
    if (!grown.wait_for(guard, timeout, found)) return std::nullopt;
    return at;
}

std::vector<LogLine> LogStream::From(size_t begin) const {
    const std::lock_guard<std::mutex> guard(lock);
    return {lines.begin() + static_cast<std::ptrdiff_t>(std::min(begin, lines.size())),
            lines.end()};
}

std::vector<LogLine> LogStream::Last(size_t count) const {
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
