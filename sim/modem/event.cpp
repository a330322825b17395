#include "sim/modem/event.h"

#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <utility>

namespace velmar_sim {

namespace {

using std::chrono::milliseconds;

// More than the threads need that read messages and log lines, unless the machine is very busy.
constexpr milliseconds kSettlingTime{50};

// How far two measurements of the same distance between the clocks may be apart.
constexpr std::chrono::nanoseconds kMaxDrift{1000000};

}  // namespace

// A new measurement for each moment would mix up moments that are close to each other.
Clock::time_point FromWallClock(std::chrono::nanoseconds moment) {
    static std::atomic<int64_t> distance_ns{0};
    const auto now = Clock::now();
    const auto wall_now = std::chrono::system_clock::now().time_since_epoch();
    const int64_t measured = (now.time_since_epoch() - wall_now).count();
    // The wall clock was set, or this is the first time.
    if (std::abs(measured - distance_ns) > kMaxDrift.count()) distance_ns = measured;
    return std::min(now, Clock::time_point(moment + std::chrono::nanoseconds(distance_ns)));
}

void EventStream::Emit(const Event& event) {
    const std::lock_guard<std::mutex> guard(lock);
    newest = std::max(newest, event.time);
    if (writers.empty()) return;
    const auto later = [](const Event& one, const Event& other) { return one.time < other.time; };
    kept_back.insert(std::upper_bound(kept_back.begin(), kept_back.end(), event, later), event);
}

void EventStream::Show(Which which) {
    const auto now = Clock::now();
    const auto until = which == Which::kAll ? Clock::time_point::max() : now - kSettlingTime;
    // Emitting does not wait for the writers.
    while (const std::optional<Event> event = Take(until)) {
        for (EventWriter* writer : writers) writer->Write(*event);
    }
}

// The oldest event, unless it is later than `until`.
std::optional<Event> EventStream::Take(Clock::time_point until) {
    const std::lock_guard<std::mutex> guard(lock);
    if (kept_back.empty() || kept_back.front().time > until) return std::nullopt;
    Event event = std::move(kept_back.front());
    kept_back.pop_front();
    // Times never run backwards: an event that is found late takes the time of the last one.
    last_shown = std::max(last_shown, event.time);
    event.since_boot = std::chrono::duration_cast<std::chrono::microseconds>(last_shown - boot);
    return event;
}

Clock::duration EventStream::QuietTime() const {
    const std::lock_guard<std::mutex> guard(lock);
    return Clock::now() - newest;
}

}  // namespace velmar_sim
