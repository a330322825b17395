#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CLI/CLI.hpp"

#include "sim/modem/event.h"
#include "sim/tool/simulation.h"
#include "sim/tool/step_player.h"

namespace velmar_sim {

// Exit statuses of velmar_sim.
constexpr int kPassed = 0;
constexpr int kFailed = 1;
constexpr int kBadInput = 2;

constexpr char kKeepAnywhere[] = "true";

// What the command line says about phones and about what is shown of them.
struct SessionOptions {
    // The service's executable.
    std::string velmar;
    // Empty: the phone's folder goes with the session. kKeepAnywhere: it is made below TMPDIR and
    // stays. Else the folder itself, which stays.
    std::string keep;
    bool quiet = false;
    // Messages are shown whole.
    bool full = false;
    std::string color = "auto";
    // Files that what happens is recorded in.
    std::vector<std::string> traces;
    double time_factor = 1;
};

// Whether the command line names the folder that stays.
inline bool IsKeptAt(const SessionOptions& options) {
    return !options.keep.empty() && options.keep != kKeepAnywhere;
}

// Adds the options about the service to a command. `options` is borrowed.
void AddServiceOptions(CLI::App* command, SessionOptions* options);

// Adds those that say what is shown and recorded. `options` is borrowed.
void AddWriterOptions(CLI::App* command, SessionOptions* options);

// Adds all options to a command. `options` is borrowed.
void AddSessionOptions(CLI::App* command, SessionOptions* options);

// Throws BadInput when no phone can be made, or no service started, with these options.
void CheckSessionOptions(const SessionOptions& options);

// Shows or records what happens in all sessions of a command, as its options ask for it.
class SessionWriters {
  public:
    // Throws BadInput when the file of a trace cannot be made, and before any is touched when one
    // is an input as well or holds something other than a trace.
    explicit SessionWriters(const SessionOptions& options);

    const std::vector<std::unique_ptr<EventWriter>>& all() const { return writers; }

    // After the last session. Throws BadInput when something could not be recorded.
    void Finish();

  private:
    std::vector<std::unique_ptr<EventWriter>> writers;
};

// One phone with its modem and a player of steps, as every command needs them. Main thread.
class Session {
  public:
    // `phone`, `options` and `writers` are borrowed. Shows `title`, makes the phone and starts
    // nothing yet. Throws std::runtime_error when something cannot be made.
    Session(const std::string& title, const Phone& phone, const SessionOptions& options,
            const SessionWriters& writers);

    EventStream& events() { return event_stream; }
    Simulation& simulation() { return simulated; }
    StepPlayer& player() { return step_player; }

  private:
    EventStream event_stream;
    Simulation simulated;
    StepPlayer step_player;
};

}  // namespace velmar_sim
