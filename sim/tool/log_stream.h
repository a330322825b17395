#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/modem/event.h"

namespace velmar_sim {

// Tags of what the phone's programs write outside of the log.
constexpr char kStandardErrorTag[] = "stderr";
constexpr char kStandardOutputTag[] = "stdout";

// One line of the phone's log: an event of the kind kLog, with "VDIWEF" as priorities, and ' ' for
// what was written outside of the log. Its text may hold line feeds.
using LogLine = Event;

// Finds the log lines in what one program writes. One thread.
class LogLineParser {
  public:
    // `plain_tag` is the tag of lines that do not come from the log.
    explicit LogLineParser(std::string plain_tag);

    // The lines that end in `written`, the bytes of one write of the program; empty at the end,
    // when a last line may lack its line feed. The log writes each of its lines at once, so a line
    // feed inside a line of the log is part of its text.
    std::vector<LogLine> Parse(const std::string& written);

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

    // The lines from position `begin` on.
    std::vector<LogLine> From(size_t begin) const;

    // The last lines, at most `count`.
    std::vector<LogLine> Last(size_t count) const;

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
