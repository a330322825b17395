#include "sim/tool/log_stream.h"

#include <algorithm>
#include <regex>

namespace velmar_sim {

namespace {

// "TAG P MM-DD HH:MM:SS  PID  TID ", in front of each line that the log writes.
const std::regex& LogHeader() {
    static const std::regex header(
            "([^\\n]{0,64}?) +([VDIWEF]) \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d +\\d+ +\\d+ ",
            std::regex::optimize);
    return header;
}

}  // namespace

std::vector<LogLine> LogLineParser::Parse(const std::string& written) {
    std::smatch match;
    if (std::regex_search(written, match, LogHeader(), std::regex_constants::match_continuous)) {
        std::string text = match.suffix();
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return {{match[2].str()[0], match[1], text}};
    }
    std::vector<LogLine> lines;
    unfinished += written;
    size_t begin = 0;
    for (size_t end = unfinished.find('\n'); end != std::string::npos;
         end = unfinished.find('\n', begin)) {
        lines.push_back({' ', tag, unfinished.substr(begin, end - begin)});
        begin = end + 1;
    }
    unfinished.erase(0, begin);
    return lines;
}

std::vector<LogLine> LogLineParser::Finish() {
    if (unfinished.empty()) return {};
    return {{' ', tag, std::move(unfinished)}};
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

std::vector<LogLine> LogStream::Last(size_t count, size_t begin) const {
    const std::lock_guard<std::mutex> guard(lock);
    const size_t from = std::max(begin, lines.size() - std::min(count, lines.size()));
    return {lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size())), lines.end()};
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
    constexpr char kContinuation[] = "\n                ";
    std::string text;
    for (const char byte : line.text) {
        if (byte == '\n') {
            text += kContinuation;
        } else {
            text += byte;
        }
    }
    const std::string priority = line.priority == ' ' ? "" : std::string(1, line.priority) + ' ';
    return priority + line.tag + ": " + text;
}

}  // namespace velmar_sim
