#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "proto/velmar_message.pb.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario.pb.h"

// The lines of a configuration beside what the service made of them. Nothing here reads a line in
// order to know what it means: what was sent, or logged, is compared with the text.
namespace velmar_sim {

enum class ConfigKind { kStatistics, kLogging, kGnss };

// Something of what came of a configuration, each in the order in which the service sent or logged
// it.
struct ConfigNews {
    std::vector<velmar_message::VelmarMessage> messages;
    std::vector<RadioRequest> radio_requests;
    std::vector<LogLine> log;
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

// Finds out what came of each entry of one configuration. One thread.
class ConfigRows {
  public:
    // `text` holds no byte 0 and no longer lines for the radio.
    ConfigRows(ConfigKind kind, const std::string& text);

    // A row for each entry, in the order of the text. Lines and texts stand from the beginning.
    const std::vector<ConfigRow>& all() const { return rows; }

    // Takes what came since the last call: all messages that were sent before its last log line, at
    // least. Returns how many rows, the first ones, are complete. Throws std::runtime_error when
    // the news are not about this text.
    size_t Take(const ConfigNews& news);

    // Completes all rows. `end` says how the service ended, and is empty while it runs; there is
    // one row more when it ended at none of them.
    void Finish(const std::string& end);

  private:
    void TakeLine(const LogLine& line);
    void BeginRow(bool has_request);
    void EndRow();
    void PairRadioRequests();

    const ConfigKind config_kind;
    std::vector<ConfigRow> rows;
    // How many rows the log has come to. The last of them goes on, and has a request with this
    // token if it has one. Tokens count up from 0, whether or not a request could be sent.
    size_t begun = 0;
    std::optional<uint32_t> token;
    uint32_t next_token = 0;
    // Requests to the modem without a row, by token.
    std::map<uint32_t, velmar_message::VelmarMessage> messages;
    std::vector<RadioRequest> radio_requests;
    std::vector<std::string> refused_lines;
    std::string last_reason = "not sent: the service says nothing of it";
};

}  // namespace velmar_sim
