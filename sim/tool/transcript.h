#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

#include "sim/modem/event.h"

namespace velmar_sim {

// Writes events to standard output for people: one line each, with the seconds since the transcript
// was made, which is the phone's boot.
class Transcript : public EventWriter {
  public:
    // Colours are used on terminals only.
    Transcript();

    void Write(const Event& event) override;

  private:
    struct Line {
        const char* colour;
        std::string text;
    };

    Line LineOf(const Event& event, const std::string& text) const;
    void Summarize(Line line);
    void EndSummary();
    void ShowProgress(const Event& event);
    void Print(const Line& line) const;

    const bool on_terminal;
    const Clock::time_point boot = Clock::now();
    // Only the last lines of a repetition are shown, in its end, after a count of the others.
    bool summing_up = false;
    std::deque<Line> last_lines;
    size_t left_out = 0;
    int64_t shown_tenths = 0;
    Clock::time_point bar_drawn;
};

// "[#####.....]  50 %  32.0 of 64.0 MiB"; `total` is above 0.
std::string ProgressText(int64_t done, int64_t total);

}  // namespace velmar_sim
