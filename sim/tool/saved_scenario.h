#pragma once

#include <list>
#include <mutex>
#include <string>
#include <utility>

#include "sim/modem/event.h"
#include "sim/tool/scenario.pb.h"

namespace velmar_sim {

// Makes a scenario of what is done in a session: the steps that passed, and an expect step for each
// message that the service sent. What a person waited for between two lines becomes a pause. The
// events may come on any thread; the other operations belong to the main thread.
class SavedScenario : public EventWriter {
  public:
    // `phone` is what the session boots with.
    explicit SavedScenario(Phone phone) : booted(std::move(phone)) {}

    void Write(const Event& event) override;

    // A step is about to be played, and was played; one that has failed is left out.
    void Begin(const Step& step);
    void End(bool has_passed);

    // The scenario in text form, for a file in `folder`, and how many `steps` it has.
    std::string Text(const std::string& folder, size_t* steps) const;

  private:
    struct Item {
        Step step;
        // In milliseconds, before the step.
        uint32_t pause = 0;
        bool is_own = false;
    };

    uint32_t PauseSoFar() const;
    void ReplaceReceived();

    const Phone booted;
    mutable std::mutex lock;
    std::list<Item> items;
    // The step being played.
    std::list<Item>::iterator current = items.end();
    int undecoded = 0;
    // Of the session's begin at first.
    Clock::time_point last_item;
    Clock::time_point last_event;
};

}  // namespace velmar_sim
