#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velmar_sim {

using Clock = std::chrono::steady_clock;

// One thing that happened in a simulated phone. Which fields it has depends on its kind.
struct Event {
    enum class Kind {
        kText,      // anything that is worth a line
        kHeading,   // names what follows
        kSent,      // the modem sends a message, the bytes in `text`, to the service
        kReceived,  // the modem has received one
        kState,     // the modem's state is `number` from now on; `text` says what is unusual
        kOpened,    // a program of the phone has opened the device `text`
        kClosed,    // ... has closed it
        kLog,       // a log line with `priority` ("VDIWEF"; ' ' for what a program wrote elsewhere)
                    // and `tag`, of the thread `number`, in the buffer `total`
        kRadio,     // a call of the radio's client library, or a response of the radio: a RadioCall
        kFault,     // a fault has hit: call `tag`, path `text`, error `number`, or length `total`
        kProgress,  // `number` of `total` bytes of a file are sent
        // Between these two many events are alike; a writer for people shows few of them.
        kRepetitionBegin,
        kRepetitionEnd,
        // For those who replay a session: a phone that boots, and a step that is neither a message
        // nor a state; `text` is a Phone or a Step.
        kPhone,
        kStep,
    };

    Kind kind = Kind::kText;
    std::string text = {};
    std::string tag = {};
    char priority = ' ';
    int64_t number = 0;
    int64_t total = 0;
    Clock::time_point time = Clock::now();
    // Set by the stream.
    std::chrono::microseconds since_boot = {};
};

// Shows or records events. One call at a time, each on the thread on which the event happened,
// while the modem may be locked: a writer must not call the modem.
class EventWriter {
  public:
    virtual ~EventWriter() = default;
    virtual void Write(const Event& event) = 0;

    // After the last event. Throws std::runtime_error when events are lost.
    virtual void Finish() {}
};

// The steady clock's time of a moment of the wall clock, which must not have been set since.
inline Clock::time_point FromWallClock(std::chrono::nanoseconds moment) {
    constexpr std::chrono::microseconds kAtOnce{20};
    for (int tries = 1;; ++tries) {
        const auto before = Clock::now();
        const auto age = std::chrono::system_clock::now().time_since_epoch() - moment;
        const auto now = Clock::now();
        // Otherwise this thread slept in between.
        if (now - before < kAtOnce || tries == 10) return std::min(now, now - age);
    }
}

// Hands the events of a simulated phone, which boots when the stream is made, to its writers. Any
// thread.
class EventStream {
  public:
    // Where to look for events that have happened and that nobody has posted yet. No other thread
    // uses the stream meanwhile.
    void SetSource(std::function<void()> look) { source = std::move(look); }

    // Takes an event, and returns at once: it is shown before the next one that is emitted and has
    // happened later, or by Flush().
    void Post(const Event& event) {
        const std::lock_guard<std::mutex> guard(posted_lock);
        posted.push_back(event);
    }

    // `writer`, which is borrowed, gets all events from now on.
    void Attach(EventWriter* writer) {
        const std::lock_guard<std::mutex> guard(lock);
        writers.push_back(writer);
    }

    void Emit(Event event) {
        if (source) source();
        const std::lock_guard<std::mutex> guard(lock);
        ShowPosted(event.time);
        Show(&event);
    }

    // Shows what has happened so far.
    void Flush() {
        if (source) source();
        const std::lock_guard<std::mutex> guard(lock);
        ShowPosted(Clock::time_point::max());
    }

    void EmitText(const std::string& text) { Emit({Event::Kind::kText, text}); }

    // How long nothing has happened.
    Clock::duration QuietTime() const {
        const std::lock_guard<std::mutex> guard(lock);
        return Clock::now() - last;
    }

  private:
    // Both are called with the lock held.
    void ShowPosted(Clock::time_point until) {
        while (std::optional<Event> event = TakePosted(until)) Show(&*event);
    }
    void Show(Event* event) {
        // Times never run backwards: an event that is found late takes the time of the last one.
        last = std::max(last, event->time);
        event->since_boot = std::chrono::duration_cast<std::chrono::microseconds>(last - boot);
        for (EventWriter* writer : writers) writer->Write(*event);
    }

    // Writers may wait, those who post must not.
    std::optional<Event> TakePosted(Clock::time_point until) {
        const std::lock_guard<std::mutex> guard(posted_lock);
        if (posted.empty() || posted.front().time > until) return std::nullopt;
        Event event = std::move(posted.front());
        posted.pop_front();
        return event;
    }

    const Clock::time_point boot = Clock::now();
    std::function<void()> source;
    std::mutex posted_lock;
    std::deque<Event> posted;
    mutable std::mutex lock;
    Clock::time_point last = boot;
    std::vector<EventWriter*> writers;
};

// A stream for whoever needs none. Any thread.
inline EventStream& NoWriters() {
    static EventStream stream;
    return stream;
}

}  // namespace velmar_sim
