#include "sim/tool/saved_scenario.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "sim/tool/differences.h"

namespace velmar_sim {

namespace {

using std::chrono::milliseconds;
using velmar_message::VelmarMessage;

constexpr size_t kMaxLine = 100;
// What goes on for a shorter time needs no pause.
constexpr milliseconds kAtOnce{1};

// The next run may be slower.
uint32_t Generous(Clock::duration time) {
    const auto ms =
            std::max<milliseconds::rep>(std::chrono::duration_cast<milliseconds>(time).count(), 0);
    return static_cast<uint32_t>(2 * ms + 100);
}

void AllowAtLeast(uint32_t ms, Step* step) {
    if (step->within_ms() < ms) step->set_within_ms(ms);
}

ReceivedMessage MessageOf(const Step& step) {
    return {step.expect(), step.expect().SerializeAsString(), true};
}

// Makes the path of a file of the workstation one that leads from `folder`.
template <typename WithSource>
void LeadFrom(const std::string& folder, WithSource* origin) {
    if (!origin->has_source()) return;
    origin->set_source(std::filesystem::proximate(origin->source(), folder));
}

// In one line if that is short.
std::string TextOf(const Scenario& part) {
    const std::string line = part.ShortDebugString();
    return line.size() <= kMaxLine ? line + "\n" : part.DebugString();
}

}  // namespace

void SavedScenario::Write(const Event& event) {
    const std::lock_guard<std::mutex> guard(lock);
    last_event = event.time;
    if (last_item == Clock::time_point()) last_item = last_event;
    // The player takes the responses to what it pushes.
    const bool is_push = current != items.end() && current->step.has_push();
    if (event.kind != Event::Kind::kReceived || is_push) return;
    Item item;
    if (!item.step.mutable_expect()->ParseFromString(event.text)) {
        ++undecoded;
        return;
    }
    // The service counts its tokens over all that it has ever asked for.
    if (item.step.expect().type() == velmar_message::REQUEST) item.step.set_any_token(true);
    AllowAtLeast(Generous(last_event - last_item), &item.step);
    items.push_back(item);
    last_item = last_event;
}

void SavedScenario::Begin(const Step& step) {
    const std::lock_guard<std::mutex> guard(lock);
    // An expect step waits by itself.
    const uint32_t pause = step.has_expect() ? 0 : PauseSoFar();
    current = items.insert(items.end(), {step, pause, true});
}

void SavedScenario::End(bool has_passed) {
    const std::lock_guard<std::mutex> guard(lock);
    if (!has_passed) {
        items.erase(current);
    } else {
        last_item = Clock::now();
        if (current->step.has_expect()) ReplaceReceived();
    }
    current = items.end();
}

// Puts an expect step that has passed in the place of the message that it took. Called with the
// lock held.
void SavedScenario::ReplaceReceived() {
    const Step& step = current->step;
    const auto received = std::find_if(items.begin(), items.end(), [&step](const Item& item) {
        return !item.is_own && item.step.has_expect() &&
               MessageDifference(step.expect(), MessageOf(item.step), step.any_token()).empty();
    });
    if (received == items.end()) return;
    const uint32_t within = received->step.within_ms();
    received->step = step;
    received->is_own = true;
    AllowAtLeast(within, &received->step);
    items.erase(current);
}

// How long it took until nothing more came of what was done last. Called with the lock held.
uint32_t SavedScenario::PauseSoFar() const {
    return last_event - last_item < kAtOnce ? 0 : Generous(last_event - last_item);
}

std::string SavedScenario::Text(const std::string& folder, size_t* steps) const {
    const std::lock_guard<std::mutex> guard(lock);
    Scenario begin;
    begin.set_description("A session of velmar_sim shell");
    std::string text = begin.DebugString();
    if (undecoded > 0) text += "# The service sent bytes that fit no expect step: no message.\n";
    begin.Clear();
    *begin.mutable_phone() = booted;
    for (File& file : *begin.mutable_phone()->mutable_file()) LeadFrom(folder, &file);
    text += TextOf(begin);
    *steps = 0;
    const auto add = [&text, steps](const Step& step) {
        ++*steps;
        Scenario part;
        *part.add_step() = step;
        text += TextOf(part);
    };
    const auto add_pause = [&add](uint32_t ms) {
        Step pause;
        pause.set_pause_ms(ms);
        if (ms > 0) add(pause);
    };
    for (const auto& [saved, pause, is_own] : items) {
        add_pause(pause);
        Step step = saved;
        if (step.has_push()) LeadFrom(folder, step.mutable_push());
        if (step.has_write_file()) LeadFrom(folder, step.mutable_write_file());
        // Whether it hits in time is a matter of luck; what comes of it is expected.
        if (step.has_fault()) step.mutable_fault()->set_optional(true);
        add(step);
    }
    add_pause(PauseSoFar());
    return text;
}

}  // namespace velmar_sim
