#pragma once

#include <mutex>
#include <string>

#include "sim/modem/simulated_modem.h"
#include "sim/tool/log_stream.h"

namespace velmar_sim {

// What a run shows on standard output: a line for each message, log line and event, with the time
// since it was made, which is the phone's boot. Any thread.
class Transcript : public ModemObserver {
  public:
    // A quiet one shows nothing. Colours are used on terminals only.
    explicit Transcript(bool is_quiet);

    // A heading, in a line of its own without a time.
    void Say(const std::string& text);
    void Log(const LogLine& line);

    void OnSent(const std::string& bytes) override;
    void OnReceived(const ReceivedMessage& message) override;
    void OnEvent(const std::string& text) override;

  private:
    void Print(Clock::time_point time, const char* colour, const std::string& text);

    const bool quiet;
    const bool coloured;
    const Clock::time_point boot = Clock::now();
    std::mutex lock;
};

}  // namespace velmar_sim
