#pragma once

#include <string>
#include <vector>

#include "proto/velmar_message.pb.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario.pb.h"

// The lines of a configuration beside what the service made of them. Nothing here reads a line in
// order to know what it means: what was sent, or logged, is compared with the text.
namespace velmar_sim {

enum class ConfigKind { kStatistics, kLogging, kGnss };

// What came of one configuration, each in the order in which the service sent or logged it.
struct ConfigOutcome {
    std::vector<velmar_message::VelmarMessage> messages;
    std::vector<RadioRequest> radio_requests;
    std::vector<LogLine> log;
    // How the service ended; empty while it runs.
    std::string end;
};

// One entry of a configuration.
struct ConfigRow {
    // Counted from 1.
    size_t line = 1;
    std::string text = {};
    // What was sent for it, or why nothing was.
    std::string result = {};
    bool is_sent = false;
    // The service ended at it.
    bool ends_service = false;
    // What the service took without a word, and hardly anybody means.
    std::vector<std::string> warnings = {};
};

// Lines for the radio stand whole in the log up to this length, in bytes.
constexpr size_t kMaxGnssLine = 900;

// A row for each entry of `text`, in its order, and one more when the service ended at none of
// them. `text` holds no byte 0 and no longer lines for the radio. Throws std::runtime_error when
// the outcome is not one of this text. Any thread.
std::vector<ConfigRow> PairWithLines(ConfigKind kind, const std::string& text,
                                     const ConfigOutcome& outcome);

}  // namespace velmar_sim
