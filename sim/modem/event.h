#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
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

// Shows or records events. One call at a time.
class EventWriter {
  public:
    virtual ~EventWriter() = default;
    virtual void Write(const Event& event) = 0;

    // After the last event. Throws std::runtime_error when events are lost.
    virtual void Finish() {}
};

// The steady clock's time of a moment of the wall clock, which must not have been set since. Any
// thread.
Clock::time_point FromWallClock(std::chrono::nanoseconds moment);

// Puts the events of a simulated phone, which boots when the stream is made, in the order of their
// times, and hands them to its writers. Any thread, but for Attach and Show.
class EventStream {
  public:
    EventStream() = default;
    // Shows what has not been shown yet.
    ~EventStream() { Show(Which::kAll); }
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    // `writer`, which is borrowed, gets all events that are not shown yet. Without any writer
    // events are forgotten. On the thread that shows them.
    void Attach(EventWriter* writer) {
        const std::lock_guard<std::mutex> guard(lock);
        writers.push_back(writer);
    }

    // Returns at once, whatever the writers do.
    void Emit(const Event& event);

    void EmitText(const std::string& text) { Emit({Event::Kind::kText, text}); }

    // Hands over all events, or those that are older than 50 ms: several threads find what happens,
    // and one may still find something that happened before what another one has found. One thread
    // at a time.
    enum class Which { kSettled, kAll };
    void Show(Which which = Which::kSettled);

    // How long nothing has happened.
    Clock::duration QuietTime() const;

  private:
    std::optional<Event> Take(Clock::time_point until);

    const Clock::time_point boot = Clock::now();
    std::vector<EventWriter*> writers;
    mutable std::mutex lock;
    std::deque<Event> kept_back;
    Clock::time_point newest = boot;
    Clock::time_point last_shown = boot;
};

// A stream for whoever needs none. Any thread.
inline EventStream& NoWriters() {
    static EventStream stream;
    return stream;
}

}  // namespace velmar_sim
