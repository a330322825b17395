#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sim/modem/event.h"
#include "sim/tool/scenario.pb.h"
#include "sim/tool/session.h"

namespace velmar_sim {

// One session of a trace.
struct RecordedSession {
    struct Row {
        Event event;
        // Number of its line or packet.
        int place;
    };

    std::string path;
    // What the phone held at boot, if the trace says so.
    std::optional<Phone> phone;
    std::vector<Row> rows;
};

// The sessions of the trace `path`. Throws BadInput.
std::vector<RecordedSession> ReadSessions(const std::string& path);

// What came of a replay.
struct ReplayResult {
    // How many messages the service sent in the trace or in the replay, those to the radio
    // included, and how many of them the other one does not have.
    size_t messages = 0;
    size_t differing = 0;
    // The differences with their places, in lines; empty when there are none.
    std::string failure;
};

// Plays the modem's side of a session again, and what was done to the phone, and compares what the
// service sends. If `fast`, rows do not wait for their time, only for what came before them. Waits
// take `factor` times as long as usual. Arguments are borrowed. Main thread.
ReplayResult Replay(const RecordedSession& recorded, bool fast, double factor, Session* session);

}  // namespace velmar_sim
