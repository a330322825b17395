#include "sim/tool/trace.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <sstream>

#include "android-base/file.h"
#include "android-base/scopeguard.h"
#include "google/protobuf/stubs/common.h"
#include "google/protobuf/stubs/strutil.h"
#include "google/protobuf/util/json_util.h"

#include "sim/tool/capture.h"
#include "sim/tool/interruption.h"
#include "sim/tool/message_text.h"
#include "sim/tool/names.h"
#include "sim/tool/scenario_reader.h"
#include "sim/tool/trace.pb.h"

namespace velmar_sim {

namespace {

using std::chrono::microseconds;
using velmar_message::VelmarMessage;

constexpr char kModem[] = "modem";
constexpr char kVelmar[] = "velmar";
constexpr char kRadio[] = "radio";
// The service in lines of hexadecimal, which come from the modem's side.
constexpr char kPhone[] = "phone";

constexpr double kMicrosecondsPerSecond = 1e6;
// In seconds; a capture has no later time.
constexpr double kMaxTime = 4294967296;
// Of a JSON error, which may repeat a text of any length.
constexpr size_t kMaxError = 300;

// What a line lacks to be an event.
class BadRow : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

void Require(bool holds, const std::string& expected) {
    if (!holds) throw BadRow("expected " + expected);
}

void RequireNone(const std::string& error) {
    if (!error.empty()) throw BadRow(error);
}

// Velmar speaks to the other one, or is spoken to.
void SetSpeakers(bool is_to_velmar, const char* other, TraceRow* row) {
    row->set_from(is_to_velmar ? other : kVelmar);
    row->set_to(is_to_velmar ? kVelmar : other);
}

void SetText(const std::string& text, TraceRow* row) {
    if (google::protobuf::internal::IsStructurallyValidUTF8(text.data(),
                                                            static_cast<int>(text.size()))) {
        if (!text.empty()) row->set_text(text);
        return;
    }
    row->set_text(google::protobuf::strings::CHexEscape(text));
    row->set_bytes(text);
}

// Kinds of events with nothing but a text, and the fields that have it; some fields are messages,
// which the text has encoded.
constexpr std::pair<Event::Kind, int> kTextFields[] = {
        {Event::Kind::kHeading, TraceRow::kHeadingFieldNumber},
        {Event::Kind::kOpened, TraceRow::kOpenedFieldNumber},
        {Event::Kind::kClosed, TraceRow::kClosedFieldNumber},
        {Event::Kind::kRadio, TraceRow::kRadioFieldNumber},
        {Event::Kind::kPhone, TraceRow::kPhoneFieldNumber},
        {Event::Kind::kStep, TraceRow::kStepFieldNumber},
};

void SetTextField(const Event& event, TraceRow* row) {
    const auto* reflection = row->GetReflection();
    for (const auto& [kind, number] : kTextFields) {
        if (kind != event.kind) continue;
        const auto* field = row->GetDescriptor()->FindFieldByNumber(number);
        if (field->message_type() == nullptr) return reflection->SetString(row, field, event.text);
        reflection->MutableMessage(row, field)->ParseFromString(event.text);
    }
}

TraceRow RowFrom(const Event& event) {
    TraceRow row;
    row.set_t(static_cast<double>(event.since_boot.count()) / kMicrosecondsPerSecond);
    switch (event.kind) {
        case Event::Kind::kText:
            SetText(event.text, &row);
            break;
        case Event::Kind::kSent:
        case Event::Kind::kReceived:
            SetSpeakers(event.kind == Event::Kind::kSent, kModem, &row);
            row.set_bytes(event.text);
            if (!row.mutable_message()->ParseFromString(event.text)) row.clear_message();
            break;
        case Event::Kind::kState:
            row.set_modem_state(static_cast<int32_t>(event.number));
            SetText(event.text, &row);
            break;
        case Event::Kind::kLog:
            row.set_log(event.priority == ' ' ? "" : std::string(1, event.priority));
            row.set_tag(event.tag);
            if (event.number != 0) row.set_thread(static_cast<uint32_t>(event.number));
            if (event.total != 0) row.set_buffer(static_cast<uint32_t>(event.total));
            SetText(event.text, &row);
            break;
        case Event::Kind::kFault:
            row.mutable_fault()->set_call(event.tag);
            row.mutable_fault()->set_path(event.text);
            if (event.number != 0) {
                row.mutable_fault()->set_error(strerrorname_np(static_cast<int>(event.number)));
            } else {
                row.mutable_fault()->set_length(static_cast<uint32_t>(event.total));
            }
            break;
        case Event::Kind::kProgress:
            row.mutable_progress()->set_sent(static_cast<uint32_t>(event.number));
            row.mutable_progress()->set_total(static_cast<uint32_t>(event.total));
            break;
        case Event::Kind::kRepetitionBegin:
            row.set_repetition(BEGIN);
            break;
        case Event::Kind::kRepetitionEnd:
            row.set_repetition(END);
            break;
        default:
            SetTextField(event, &row);
    }
    if (row.has_radio()) {
        row.mutable_radio()->clear_time_us();
        SetSpeakers(row.radio().has_response_to(), kRadio, &row);
    }
    return row;
}

Event MessageFrom(bool is_sent, const std::string& bytes) {
    if (is_sent) RequireNone(SizeError(bytes.size()));
    return {is_sent ? Event::Kind::kSent : Event::Kind::kReceived, bytes};
}

// An event that the row says by a message, or by a text of its own.
Event MessageOrText(const TraceRow& row, const std::string& text) {
    if (!row.has_from()) {
        Require(row.has_text(), "from, log, radio, modem_state, text or another kind of row");
        return {Event::Kind::kText, text};
    }
    Require(row.from() == kModem || row.from() == kVelmar,
            "from modem or velmar, found " + QuoteBytes(row.from()));
    Require(row.has_bytes() || row.has_message(), "bytes or message");
    return MessageFrom(row.from() == kModem,
                       row.has_bytes() ? row.bytes() : row.message().SerializeAsString());
}

Event FaultFrom(const Fault& fault) {
    Event event = {Event::Kind::kFault, fault.path(), fault.call()};
    event.total = fault.length();
    if (!fault.has_error()) return event;
    const std::optional<int> error = ErrorFromName(fault.error());
    Require(error.has_value(), "an error such as \"EIO\", found " + QuoteBytes(fault.error()));
    event.number = *error;
    return event;
}

Event LogFrom(const TraceRow& row, const std::string& text) {
    const std::optional<char> priority = row.log().empty() ? ' ' : PriorityFromText(row.log());
    Require(priority.has_value(), "a priority such as \"I\", found " + QuoteBytes(row.log()));
    Event event = {Event::Kind::kLog, text, row.tag()};
    event.priority = *priority;
    event.number = row.thread();
    event.total = row.buffer();
    return event;
}

Event ProgressFrom(const Progress& progress) {
    Require(progress.total() > 0 && progress.sent() <= progress.total(),
            "a total above 0, and no more sent than that");
    Event event = {Event::Kind::kProgress};
    event.number = progress.sent();
    event.total = progress.total();
    return event;
}

Event EventFrom(const TraceRow& row) {
    const std::string text = row.has_bytes() ? row.bytes() : row.text();
    if (row.what_case() == TraceRow::WHAT_NOT_SET) return MessageOrText(row, text);
    if (row.has_log()) return LogFrom(row, text);
    if (row.has_fault()) return FaultFrom(row.fault());
    if (row.has_progress()) return ProgressFrom(row.progress());
    if (row.has_phone()) RequireNone(ErrorsOf(row.phone(), "phone"));
    if (row.has_step()) RequireNone(ErrorsOf(row.step(), "step"));
    if (row.has_repetition()) {
        return {row.repetition() == BEGIN ? Event::Kind::kRepetitionBegin
                                          : Event::Kind::kRepetitionEnd};
    }
    Event event = {Event::Kind::kState, text};
    event.number = row.modem_state();
    const auto* reflection = row.GetReflection();
    for (const auto& [kind, number] : kTextFields) {
        if (number != row.what_case()) continue;
        const auto* field = row.GetDescriptor()->FindFieldByNumber(number);
        event.kind = kind;
        event.text = field->message_type() == nullptr
                             ? reflection->GetString(row, field)
                             : reflection->GetMessage(row, field).SerializeAsString();
    }
    return event;
}

Event EventFromJson(const std::string& line) {
    TraceRow row;
    const auto status = google::protobuf::util::JsonStringToMessage(line, &row);
    const std::string why = status.message().ToString();
    // The lines after the first show the place in the text.
    Require(status.ok(),
            "a row of a trace in JSON: " + why.substr(0, std::min(why.find('\n'), kMaxError)));
    Require(row.IsInitialized(), row.InitializationErrorString());
    Require(row.t() >= 0 && row.t() < kMaxTime, "in t seconds from 0 on, below 2^32");
    Event event = EventFrom(row);
    event.since_boot = microseconds(std::llround(row.t() * kMicrosecondsPerSecond));
    return event;
}

Event EventFromHex(const std::string& line) {
    std::istringstream words(line);
    std::string speaker;
    std::string digits;
    words >> speaker;
    std::getline(words, digits, '\r');
    const std::optional<std::string> bytes = BytesFromHex(digits);
    Require(bytes && (speaker == kModem || speaker == kPhone),
            "JSON, or \"modem\" or \"phone\" and bytes in hexadecimal, found " + QuoteBytes(line));
    return MessageFrom(speaker == kModem, *bytes);
}

}  // namespace

TraceWriter::TraceWriter(const std::string& path)
    : file_path(path), file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
    if (file < 0) ThrowUnwritable(path, errno);
    is_regular = std::filesystem::is_regular_file(path);
}

void TraceWriter::Write(const Event& event) {
    if (error != 0) return;
    TraceRow row = RowFrom(event);
    if (event.kind == Event::Kind::kPhone) requests.clear();
    const VelmarMessage& message = row.message();
    if (message.type() == velmar_message::REQUEST) {
        requests[{event.kind, message.token()}] = event.since_boot;
    } else if (message.type() == velmar_message::RESPONSE) {
        const auto asked =
                event.kind == Event::Kind::kSent ? Event::Kind::kReceived : Event::Kind::kSent;
        const auto request = requests.find({asked, message.token()});
        if (request != requests.end()) {
            row.set_after_us(static_cast<double>((event.since_boot - request->second).count()));
        }
    }
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    std::string line;
    static_cast<void>(google::protobuf::util::MessageToJsonString(row, &line, options));
    // In one piece and at once, so that an ended program leaves whole rows: a signal would cut a
    // long one.
    const SignalDelay delay(is_regular);
    if (!android::base::WriteStringToFd(line + "\n", file)) error = errno;
}

void TraceWriter::Finish() {
    if (error != 0) ThrowUnwritable(file_path, error);
}

bool HoldsTrace(const std::string& path) {
    InputFile file(fopen(path.c_str(), "re"), fclose);
    const int first = file == nullptr ? EOF : getc(file.get());
    if (first == EOF) return true;
    static_cast<void>(ungetc(first, file.get()));
    // Lines of hexadecimal are no work of a writer.
    if (first != '{' && !IsCapture(file.get())) return false;
    bool has_row = false;
    try {
        // One row is enough.
        ReadTrace(path, std::move(file), [&has_row](const Event&, int) {
            has_row = true;
            throw BadInput("");
        });
        return true;
    } catch (const BadInput&) {
        return has_row;
    }
}

void ReadTrace(const std::string& path, InputFile file, const TraceReader& reader) {
    if (IsCapture(file.get())) return ReadCapture(path, std::move(file), reader);
    char* text = nullptr;
    size_t capacity = 0;
    const auto freeing = android::base::make_scope_guard([&text] { free(text); });
    int number = 0;
    for (ssize_t size = 0; (size = getline(&text, &capacity, file.get())) > 0;) {
        ++number;
        if (text[size - 1] == '\n') --size;
        const std::string line(text, static_cast<size_t>(size));
        const size_t begin = line.find_first_not_of(" \t\r");
        if (begin == std::string::npos) continue;
        try {
            reader(line[begin] == '{' ? EventFromJson(line) : EventFromHex(line), number);
        } catch (const BadRow& error) {
            throw BadInput(path + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    if (ferror(file.get()) != 0) ThrowUnreadable(path, errno);
}

}  // namespace velmar_sim
