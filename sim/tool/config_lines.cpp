#include "sim/tool/config_lines.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "android-base/parsedouble.h"
#include "android-base/strings.h"
#include "google/protobuf/stubs/strutil.h"

#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

using android::base::Split;
using android::base::StartsWith;
using android::base::Trim;
using velmar_message::ModemStatEnableRequest;
using velmar_message::VelmarMessage;

// The service logs one of these for each entry of a diagnostic configuration, in their order.
constexpr char kStatisticsEntry[] = "Send debug stat config: ";
constexpr char kLoggingEntry[] = "Enabling modem userspace logging file ";
constexpr char kNoModule[] = "Failed to get module name";

// What it logs about entries for the radio that it does not send, with the line behind.
constexpr char kTooFewFields[] = "Invalid GNSS coex config line - ";
constexpr char kIncomplete[] = "Invalid band1 GNSS coex configuration - ";
constexpr char kNoLineFeed[] = "Invalid GNSS coex configuration file";

constexpr unsigned int kGnssEntryRequest = 226;
constexpr size_t kGnssEntrySize = 10;
// By the kind of an entry, its first byte; that of a single band without a letter is 0.
constexpr const char* kGnssKinds[] = {"GSM code ", "?", "LTE ", "NR ", "LTE pair ", "NR pair "};
constexpr int kFirstPairKind = 4;
constexpr size_t kPairFields = 4;

std::string Quoted(const std::string& text) {
    return '"' + google::protobuf::strings::Utf8SafeCEscape(text) + '"';
}

std::string IsSentAs(const std::string& text, int64_t number) {
    return Quoted(text) + " is sent as " + std::to_string(number);
}

void WarnPassedOver(const std::string& text, ConfigRow* row) {
    row->warnings.push_back(Quoted(text) + " is passed over");
}

std::string WithoutCr(std::string text) {
    if (!text.empty() && text.back() == '\r') text.pop_back();
    return text;
}

// Whether a reader of `text` expects this number.
bool Says(const std::string& text, int64_t number) {
    double read = 0;
    return android::base::ParseDouble(Trim(text), &read) && read == static_cast<double>(number);
}

// Takes away the empty ones of the parts of an entry.
std::vector<std::string> FilledParts(const std::string& text, const char* separators,
                                     const char* noun, ConfigRow* row) {
    std::vector<std::string> parts = Split(text, separators);
    const auto filled = std::remove(parts.begin(), parts.end(), "");
    if (filled != parts.end()) {
        row->warnings.push_back(std::string("an empty ") + noun + " is passed over");
    }
    parts.erase(filled, parts.end());
    return parts;
}

void AddStatisticsRows(const std::string& line, size_t number, std::vector<ConfigRow>* rows) {
    ConfigRow row = {number};
    // CR separates entries, as LF does.
    for (const std::string& entry : FilledParts(WithoutCr(line), "|\r", "entry", &row)) {
        row.text = entry;
        rows->push_back(row);
        row.warnings.clear();
    }
}

std::vector<ConfigRow> MakeRows(ConfigKind kind, const std::string& text) {
    std::vector<std::string> lines = Split(text, "\n");
    // The last line feed ends a line and begins none.
    if (lines.back().empty()) lines.pop_back();
    std::vector<ConfigRow> rows;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (kind == ConfigKind::kStatistics) {
            AddStatisticsRows(lines[i], i + 1, &rows);
        } else if (kind == ConfigKind::kLogging || !lines[i].empty()) {
            rows.push_back({i + 1, lines[i]});
        }
    }
    return rows;
}

// What is doubtful in a name that the modem got; `noun` says what it names.
void CheckName(const std::string& noun, const std::string& text, const std::string& sent,
               ConfigRow* row) {
    const auto warn_if = [row](bool is_doubtful, const std::string& warning) {
        if (is_doubtful) row->warnings.push_back(warning);
    };
    const std::string name = WithoutCr(sent);
    warn_if(sent != text, Quoted(text) + " is sent as " + Quoted(sent));
    warn_if(sent.empty(), "the request has no " + noun);
    warn_if(sent != name, "CR is part of the " + noun);
    warn_if(std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < ' '; }),
            "control characters are part of the " + noun);
    warn_if(Trim(name) != name, "white space is part of the " + noun);
    warn_if(StartsWith(name, "\xEF\xBB\xBF"), "a byte order mark is part of the " + noun);
    warn_if(StartsWith(name, "#"), "a comment is taken for a " + noun);
}

// What is doubtful in the parameters called `noun`, of which `number` was sent if `is_sent`.
void CheckParameter(const std::string& noun, const std::vector<std::string>& parameters,
                    bool is_sent, int64_t number, ConfigRow* row) {
    const std::string key = noun.substr(0, 1) + "=";
    std::vector<std::string> given;
    for (const std::string& text : parameters) {
        if (StartsWith(text, key)) given.push_back(text);
    }
    if (given.size() > 1) {
        row->warnings.push_back("the " + noun + " is given more than once");
    } else if (given.size() == 1 && !is_sent) {
        row->warnings.push_back(Quoted(given[0]) + " sends no " + noun);
    } else if (given.size() == 1 && !Says(given[0].substr(key.size()), number)) {
        row->warnings.push_back(IsSentAs(given[0], number));
    }
}

void CheckStatistics(const ModemStatEnableRequest& sent, ConfigRow* row) {
    std::vector<std::string> fields = FilledParts(row->text, ":", "field", row);
    fields.resize(std::max<size_t>(fields.size(), 1));
    CheckName("module", fields[0], sent.module(), row);
    if (fields[0].find('=') != std::string::npos) {
        row->warnings.push_back(Quoted(fields[0]) + " is taken for a module");
    }
    if (fields.size() == 1) return;
    const auto parameters = FilledParts(fields[1], ",", "parameter", row);
    CheckParameter("value", parameters, sent.has_value(), sent.value(), row);
    CheckParameter("type", parameters, sent.has_type(), sent.type(), row);
    for (const std::string& text : parameters) {
        if (!StartsWith(text, "v=") && !StartsWith(text, "t=")) WarnPassedOver(text, row);
    }
    for (size_t i = 2; i < fields.size(); ++i) WarnPassedOver(fields[i], row);
}

void TakeMessage(ConfigKind kind, const VelmarMessage& message, ConfigRow* row) {
    row->is_sent = true;
    if (kind == ConfigKind::kStatistics) {
        row->result = message.modem_stat_message().ShortDebugString();
        CheckStatistics(message.modem_stat_message().enable_request(), row);
    } else {
        row->result = message.userspace_log_message().ShortDebugString();
        CheckName("name", row->text, message.userspace_log_message().enable_request().name(), row);
    }
    if (row->result.empty()) row->result = message.ShortDebugString();
}

// The little-endian number of 16 bits at `offset`.
uint16_t NumberAt(const std::string& bytes, size_t offset) {
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes.at(offset)) |
                                 static_cast<uint8_t>(bytes.at(offset + 1)) << 8);
}

// One band with its value, as they lie in an entry from `offset` on.
std::string TakeBand(const std::string& entry, size_t offset, const std::string& band_text,
                     const std::string& value_text, ConfigRow* row) {
    const auto kind = static_cast<uint8_t>(entry.at(0));
    const uint16_t band = NumberAt(entry, offset);
    const auto value = static_cast<int16_t>(NumberAt(entry, offset + 2));
    const bool has_letter = band_text.find_first_of("BbNn") == 0;
    if (kind == 0 && band == 0) {
        row->warnings.push_back(Quoted(band_text) + " is no band, band 0 is sent");
    } else if (kind != 0 && !Says(band_text.substr(has_letter ? 1 : 0), band)) {
        row->warnings.push_back("band " + IsSentAs(band_text, band));
    }
    if (!Says(value_text, value)) row->warnings.push_back("value " + IsSentAs(value_text, value));
    return std::to_string(band) + " value " + std::to_string(value);
}

void TakeRadioRequest(const RadioRequest& request, ConfigRow* row) {
    const std::string& data = request.data();
    row->is_sent = true;
    row->result = std::to_string(request.request()) + "  " + HexBytes(data, true);
    const std::string text = WithoutCr(row->text);
    if (text != row->text) row->warnings.emplace_back("CR ends the line");
    if (request.request() != kGnssEntryRequest || data.size() != kGnssEntrySize) {
        const uint16_t number = NumberAt(data, 0);
        if (!Says(text, number)) row->warnings.push_back(IsSentAs(text, number));
        return;
    }
    std::vector<std::string> fields = Split(text, ",");
    fields.resize(std::max(fields.size(), kPairFields));
    const auto kind = static_cast<uint8_t>(data[0]);
    std::string shown = kind < std::size(kGnssKinds) ? kGnssKinds[kind] : "?";
    shown += TakeBand(data, 2, fields[0], fields[1], row);
    const bool is_pair = kind >= kFirstPairKind;
    if (is_pair) shown += ", " + TakeBand(data, 6, fields[2], fields[3], row);
    // A code that stands for no band says nothing.
    if (kind != 0 || NumberAt(data, 2) != 0) row->result += "  " + shown;
    for (size_t i = is_pair ? kPairFields : 2; i < fields.size(); ++i) {
        if (!Trim(fields[i]).empty()) WarnPassedOver(fields[i], row);
    }
}

}  // namespace

ConfigRows::ConfigRows(ConfigKind kind, const std::string& text)
    : config_kind(kind), rows(MakeRows(kind, text)) {}

size_t ConfigRows::Take(const ConfigNews& news) {
    for (const VelmarMessage& message : news.messages) messages[message.token()] = message;
    radio_requests.insert(radio_requests.end(), news.radio_requests.begin(),
                          news.radio_requests.end());
    for (const LogLine& line : news.log) TakeLine(line);
    return begun == 0 ? 0 : begun - 1;
}

// Messages are paired by the order of the log.
void ConfigRows::TakeLine(const LogLine& line) {
    if (line.priority == 'E') last_reason = "not sent: " + line.text;
    if (StartsWith(line.text, kStatisticsEntry) || StartsWith(line.text, kLoggingEntry)) {
        BeginRow(true);
    } else if (line.text == kNoModule) {
        BeginRow(false);
    } else if (StartsWith(line.text, kTooFewFields) || StartsWith(line.text, kIncomplete)) {
        refused_lines.push_back(line.text);
    } else if (line.text == kNoLineFeed && !rows.empty()) {
        rows.front().warnings.emplace_back("the file has no line feed, which is logged");
    } else if (begun > 0 && rows[begun - 1].result.empty() && line.priority == 'E') {
        rows[begun - 1].result = last_reason;
    }
}

void ConfigRows::BeginRow(bool has_request) {
    EndRow();
    if (begun > 0 && rows[begun - 1].result.empty()) rows[begun - 1].result = last_reason;
    if (begun == rows.size()) {
        throw std::runtime_error("the service logs more entries than the text has");
    }
    if (has_request) {
        token = next_token++;
    } else {
        rows[begun].result = "not sent: expected a module";
    }
    ++begun;
}

void ConfigRows::EndRow() {
    const auto message = token ? messages.find(*token) : messages.end();
    token.reset();
    if (message == messages.end()) return;
    TakeMessage(config_kind, message->second, &rows[begun - 1]);
    messages.erase(message);
}

// The service logs each line that it does not send, and does the same with lines that are alike: a
// line that the log has next was not sent, the others were.
void ConfigRows::PairRadioRequests() {
    size_t refusals = 0;
    size_t requests = 0;
    // The first line is no entry, but may look like one that is refused.
    if (!rows.empty() && !radio_requests.empty() &&
        radio_requests[0].request() != kGnssEntryRequest) {
        TakeRadioRequest(radio_requests[requests++], &rows.front());
    }
    for (ConfigRow& row : rows) {
        if (row.is_sent) continue;
        const std::string logged = refusals < refused_lines.size() ? refused_lines[refusals] : "";
        if (logged == kTooFewFields + row.text) {
            row.result = "not sent: expected at least two fields";
            ++refusals;
        } else if (logged == kIncomplete + row.text) {
            row.result = "not sent: expected a value for each band, and a band for each value";
            ++refusals;
        } else if (requests < radio_requests.size()) {
            TakeRadioRequest(radio_requests[requests++], &row);
        }
    }
}

void ConfigRows::Finish(const std::string& end) {
    EndRow();
    PairRadioRequests();
    std::string reason = last_reason;
    bool ends = !end.empty();
    const auto explain = [&](ConfigRow* row) {
        row->result = ends ? "the service ended: " + end : reason;
        row->ends_service = ends;
        if (ends) reason = "not sent: the service had ended";
        ends = false;
    };
    for (ConfigRow& row : rows) {
        if (row.result.empty()) explain(&row);
    }
    if (!ends) return;
    rows.push_back({rows.empty() ? 1 : rows.back().line});
    explain(&rows.back());
}

}  // namespace velmar_sim
