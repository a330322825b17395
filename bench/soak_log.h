#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace velmar_bench {

// Lines of the service's log that say that something is done: each is a part of the line.
constexpr char kStateChanged[] = "Modem state changed from ";
constexpr char kChannelLost[] = "Read channel error, size:0";
constexpr char kAnswerTaken[] = "response successful";
// A line of the modem's own, which the service logs; its number follows.
constexpr char kModemLine[] = "Modem: soak ";

// Priority with which the service logs the modem's line of that number.
inline uint32_t LevelOfModemLine(uint64_t number) {
    return static_cast<uint32_t>(number % 3);
}

// Watches the service's log without keeping it. Any thread.
class SoakLog {
  public:
    SoakLog();

    // Takes what one write of the service holds, a whole line of the log.
    void Take(const std::string& written);

    // Waits until lines with `text`, one of those above, have come `count` times since the
    // beginning. Throws std::runtime_error when they do not.
    void Await(const std::string& text, uint64_t count);

    // Throws std::runtime_error if a line has come that a phone in order never logs.
    void Check();

    // The last lines, for a report of a failure.
    std::string LastLines();

  private:
    void Count(const std::string& line);
    std::string FaultIn(const std::string& line) const;

    std::mutex lock;
    std::condition_variable grown;
    std::map<std::string, uint64_t> counts;
    std::deque<std::string> last_lines;
    std::string fault;
};

}  // namespace velmar_bench
