#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
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
    // A call of the radio's client library, as `text` has it, that was made at `time`.
    void OnRadioCall(Clock::time_point time, const std::string& text);

    // From here to EndSummary only the last lines are shown, and those in the end, after a count of
    // the others: for long stretches of the same.
    void BeginSummary();
    void EndSummary();

    // How far a transfer that is summed up has got, in bytes; `total` is above 0. A bar where a
    // terminal shows it, otherwise a line for each tenth.
    void ShowProgress(uint64_t done, uint64_t total);

    void OnSent(const std::string& bytes) override;
    void OnReceived(const ReceivedMessage& message) override;
    void OnEvent(const std::string& text) override;

  private:
    struct Line {
        Clock::time_point time;
        const char* colour;
        std::string text;
    };

    void Print(Line line);
    void Keep(Line line);
    void Write(const Line& line) const;

    const bool quiet;
    const bool on_terminal;
    const Clock::time_point boot = Clock::now();

    // Guards what stands below it, and the output.
    std::mutex lock;
    bool summing_up = false;
    std::deque<Line> last_lines;
    size_t left_out = 0;
    uint64_t shown_tenths = 0;
    Clock::time_point bar_drawn;
};

// A stretch of the transcript that is summed up, to the end of the object.
class TranscriptSummary {
  public:
    explicit TranscriptSummary(Transcript* transcript) : show(transcript) { show->BeginSummary(); }
    ~TranscriptSummary() { show->EndSummary(); }
    TranscriptSummary(const TranscriptSummary&) = delete;
    TranscriptSummary& operator=(const TranscriptSummary&) = delete;

  private:
    Transcript* const show;
};

// "[#####.....]  50 %  32.0 of 64.0 MiB"; `total` is above 0.
std::string ProgressText(uint64_t done, uint64_t total);

// "1.500 s, 44.7 MB/s".
std::string RateText(uint64_t bytes, std::chrono::duration<double> taken);

}  // namespace velmar_sim
