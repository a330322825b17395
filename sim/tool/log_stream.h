#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace velmar_sim {

// Tags of what the phone's programs write outside of the log.
constexpr char kStandardErrorTag[] = "stderr";
constexpr char kStandardOutputTag[] = "stdout";

// One line of the phone's log. `text` may hold line feeds.
struct LogLine {
    // One of "VDIWEF"; ' ' for what was written outside of the log.
    char priority = ' ';
    std::string tag;
    std::string text;
};

// Finds the log lines in what one program writes. One thread.
class LogLineParser {
  public:
    // `plain_tag` is the tag of lines that do not come from the log.
    explicit LogLineParser(std::string plain_tag) : tag(std::move(plain_tag)) {}

    // The lines that end in `written`, the bytes of one write of the program. The log writes each
    // of its lines at once, so a line feed inside a line of the log is part of its text.
    std::vector<LogLine> Parse(const std::string& written);

    // What is left at the end: a last line without its line feed.
    std::vector<LogLine> Finish();

  private:
    const std::string tag;
    std::string unfinished;
};

// All lines of a phone's log, in the order of their arrival. Any thread.
class LogStream {
  public:
    using Matcher = std::function<bool(const LogLine&)>;

    void Append(const std::vector<LogLine>& more);

    // Position of the first line that `matches`, from position `begin` on; waits up to `timeout`
    // for one.
    std::optional<size_t> Find(size_t begin, const Matcher& matches,
                               std::chrono::milliseconds timeout);

    // The last lines from `begin` on, at most `count`.
    std::vector<LogLine> Last(size_t count, size_t begin = 0) const;

  private:
    mutable std::mutex lock;
    std::condition_variable grown;
    std::vector<LogLine> lines;
};

// Whether the line begins a report of a sanitizer.
bool IsSanitizerReport(const LogLine& line);

// "I velmar: text", further lines of the text indented.
std::string DescribeLogLine(const LogLine& line);

}  // namespace velmar_sim
