#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/modem/event.h"
#include "sim/modem/log_socket.h"

namespace velmar_sim {

// Tags of what the phone's programs write outside of the log.
constexpr char kStandardErrorTag[] = "stderr";
constexpr char kStandardOutputTag[] = "stdout";

// All lines of a phone's log, and what its programs write elsewhere, in the order in which they
// were written; each is an event too. Any thread.
class LogStream {
  public:
    using Matcher = std::function<bool(const LogLine&)>;

    // `event_stream` is borrowed. Throws std::runtime_error.
    LogStream(const PhoneFolder& folder, EventStream* event_stream);

    void Append(const LogLine& line);

    // Position of the first line that `matches`, from position `begin` on; waits up to `timeout`
    // for one.
    std::optional<size_t> Find(size_t begin, const Matcher& matches,
                               std::chrono::milliseconds timeout);

    // The lines from position `begin` on.
    std::vector<LogLine> From(size_t begin);

    // The last lines, at most `count`.
    std::vector<LogLine> Last(size_t count);

  private:
    EventStream* const events;
    std::mutex lock;
    std::condition_variable grown;
    std::vector<LogLine> lines;
    LogSocket socket;
};

// Whether the line begins a report of a sanitizer.
bool IsSanitizerReport(const LogLine& line);

// "I velmar: text", further lines of the text indented.
std::string DescribeLogLine(const LogLine& line);

}  // namespace velmar_sim
