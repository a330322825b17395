#pragma once

#include "sim/modem/event.h"

namespace velmar_sim {

// Writes events to standard output for people: one line each, with the seconds since the transcript
// was made, which is the phone's boot. Of a repetition it shows how far it has got, and counts the
// rest.
class Transcript : public EventWriter {
  public:
    // Colours are used on terminals only.
    Transcript();

    void Write(const Event& event) override;

  private:
    void ShowProgress(const Event& event);
    void Print(const Event& event, const char* colour, const std::string& text) const;

    const bool on_terminal;
    const Clock::time_point boot = Clock::now();
    bool is_repetition = false;
    size_t left_out = 0;
    int64_t shown_tenths = 0;
};

}  // namespace velmar_sim
