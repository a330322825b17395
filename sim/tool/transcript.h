#pragma once

#include <string>

#include "sim/modem/event.h"

namespace velmar_sim {

// Writes events to standard output for people: one line each, with the seconds since the phone's
// boot. Of a repetition it shows how far it has got, and counts the rest.
class Transcript : public EventWriter {
  public:
    // Long fields of messages are cut unless messages are shown `whole`.
    Transcript(bool uses_colours, bool shows_whole_messages)
        : colours(uses_colours), whole(shows_whole_messages) {}

    void Write(const Event& event) override;

  private:
    void ShowProgress(const Event& event);
    void Print(const Event& event, const char* colour, const std::string& text) const;

    const bool colours;
    const bool whole;
    bool is_repetition = false;
    size_t left_out = 0;
    int64_t shown_tenths = 0;
};

}  // namespace velmar_sim
