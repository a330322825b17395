#include "sim/tool/scenario_reader.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <system_error>

#include "google/protobuf/io/tokenizer.h"
#include "google/protobuf/text_format.h"

#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/tool/file_push.h"
#include "sim/tool/message_text.h"
#include "sim/tool/names.h"
#include "sim/tool/patterns.h"

namespace velmar_sim {

namespace {

using google::protobuf::DynamicCastToGenerated;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::TextFormat;
using velmar_message::VelmarMessage;

constexpr char kPatternField[] = "matching";
// What the parser says may repeat a text of any length.
constexpr size_t kMaxParserError = 300;
constexpr uint32_t kMaxFaultCount = INT32_MAX;

// What the texts in a field have to be.
struct TextRule {
    std::string what;
    std::function<bool(const std::string&)> is_met;
};

bool IsPayload(const std::string& name) {
    const auto* field = VelmarMessage::descriptor()->FindFieldByName(name);
    return field != nullptr && field->containing_oneof() != nullptr;
}

// Whether a C library takes it as it is.
bool IsName(const std::string& text) {
    return text.find('\0') == std::string::npos;
}

bool IsPathPattern(const std::string& text) {
    const bool can_lead = !text.empty() && (text[0] == '/' || text[0] == '*');
    return can_lead && IsName(text) && text.size() < sizeof(velmar_phone::Fault::path);
}

template <auto convert>
bool Converts(const std::string& text) {
    return convert(text).has_value();
}

TextRule OneOf(const std::string& what, const std::set<std::string>& names) {
    return {what, [names](const std::string& text) { return names.count(text) > 0; }};
}

// By the field's name in the schema; null for a field that takes any text.
const TextRule* FindTextRule(const FieldDescriptor& field) {
    static const TextRule path = {
            "a path of the phone without \"..\" and byte 0: a device, or one in /data, /vendor, "
            "/mnt/vendor or /sys/devices/platform/cp-tm1",
            PhoneFolder::IsOnPhone};
    static const TextRule mode = {"permissions in octal such as \"0644\"", Converts<ModeFromText>};
    static const TextRule signal = {"a signal such as \"SIGUSR1\"", Converts<SignalFromName>};
    static const TextRule name = {"one without byte 0", IsName};
    static const TextRule property = {
            "a property's name: 1 to 255 letters, digits and .-_@: without \"..\", and no dot at "
            "either end",
            velmar_phone::IsPropertyName};
    static const std::map<std::string, TextRule> rules = {
            {"Phone.missing", path},
            {"File.path", path},
            {"FileState.path", path},
            {"Step.remove_file", path},
            {"Phone.umask", mode},
            {"File.mode", mode},
            {"FileState.mode", mode},
            {"Step.signal", signal},
            {"Step.send_hex", {"bytes in hexadecimal such as \"08 01\"", Converts<BytesFromHex>}},
            {"Exit.signal", signal},
            {"Phone.argument", name},
            {"Client.argument", name},
            {"File.source", name},
            {"Push.source", name},
            {"Phone.refused_property", property},
            {"Property.name", property},
            {"PropertyState.name", property},
            {"LogPattern.priority",
             {"a priority such as \"I\" or \"4\"", Converts<PriorityFromText>}},
            {"ResponsePolicy.payload", {"a payload such as \"modem_stat_message\"", IsPayload}},
            {"Fault.path",
             {"a path, or a pattern of paths, of at most 231 bytes without byte 0", IsPathPattern}},
            {"Fault.error", {"an error such as \"EIO\"", Converts<ErrorFromName>}},
            {"Fault.call",
             OneOf("a call such as \"read\"", {"open", "stat", "read", "write", "select", "poll",
                                               "ioctl", "unlink", "rename", "chmod", "close"})},
            {"Phone.missing_entry_point",
             OneOf("an entry point such as \"RILC_Send\"",
                   {"RILC_Open", "RILC_OpenV2", "RILC_Close", "RILC_Reconnect",
                    "RILC_RegisterUnsolicitedHandler", "RILC_Send", "RILC_SetIndicationFilter"})},
    };
    const auto found = rules.find(field.containing_type()->name() + "." + field.name());
    return found == rules.end() ? nullptr : &found->second;
}

// What is wrong with a text; empty when nothing is.
std::string TextError(const FieldDescriptor& field, const std::string& text) {
    if (field.name() == kPatternField) return PatternError(text);
    const TextRule* rule = FindTextRule(field);
    if (rule == nullptr || rule->is_met(text)) return "";
    return "expected " + rule->what + ", found " + QuoteBytes(text);
}

// What is wrong with the message that a step sends; empty when nothing is.
std::string SendError(const Step& step) {
    if (step.has_send()) return SizeError(step.send().ByteSizeLong());
    if (step.has_send_bytes()) return SizeError(step.send_bytes().size());
    // Nothing in a step that does not send.
    const auto bytes = BytesFromHex(step.send_hex());
    return bytes ? SizeError(bytes->size()) : "";
}

// What a message lacks; empty when nothing.
std::string FindMissing(const Message& message) {
    const auto* type = message.GetDescriptor();
    const auto* reflection = message.GetReflection();
    for (int i = 0; i < type->field_count(); ++i) {
        const auto* field = type->field(i);
        if (field->is_required() && !reflection->HasField(message, field)) return field->name();
    }
    // A file may be empty or just be there, and a message of the modem may be anything.
    const bool may_lack_all = type == FileState::descriptor() || type == File::descriptor() ||
                              type->file() != Scenario::descriptor()->file();
    for (int i = 0; i < type->oneof_decl_count() && !may_lack_all; ++i) {
        const auto* oneof = type->oneof_decl(i);
        if (reflection->HasOneof(message, oneof)) continue;
        return oneof->field(0)->name() + " or " + oneof->field(1)->name();
    }
    return "";
}

// What is wrong with a message beside the texts in its fields; empty when nothing is.
std::string MessageError(const Message& message) {
    const auto* scenario = DynamicCastToGenerated<Scenario>(&message);
    if (scenario != nullptr && scenario->step_size() == 0) return "expected a step";
    if (const auto* step = DynamicCastToGenerated<Step>(&message)) {
        if (step->action_case() == Step::ACTION_NOT_SET) {
            return "expected an action such as send, expect or log";
        }
        if (step->log().has_for_ms()) return "expected for_ms in no_log only";
        if (step->any_token() && !step->has_expect()) return "expected any_token with expect only";
        std::string error = SendError(*step);
        if (!error.empty()) return error;
    }
    const std::string missing = FindMissing(message);
    if (!missing.empty()) return "expected " + missing;
    if (const auto* push = DynamicCastToGenerated<Push>(&message)) return PushError(*push);
    const auto* file = DynamicCastToGenerated<File>(&message);
    std::error_code error;
    if (file != nullptr && file->has_source() &&
        !std::filesystem::is_regular_file(file->source(), error)) {
        return "source: " + file->source() + ": " + (error ? error.message() : "expected a file");
    }
    const auto* fault = DynamicCastToGenerated<Fault>(&message);
    if (fault != nullptr && (fault->times() == 0 || fault->times() > kMaxFaultCount ||
                             fault->skip() > kMaxFaultCount || fault->length() > kMaxFaultCount)) {
        return "expected times above 0; times, skip and length of at most " +
               std::to_string(kMaxFaultCount);
    }
    const auto* property = DynamicCastToGenerated<Property>(&message);
    if (property != nullptr && !PhoneFolder::IsPropertyValue(property->name(), property->value())) {
        return "expected a value of at most 91 bytes, or a name that begins with \"ro.\"";
    }
    return "";
}

// Collects errors as lines "FILE:LINE: text", of a text that is one line "LINE:COLUMN: text", and
// of what was no text "text; text".
class ErrorList : public google::protobuf::io::ErrorCollector {
  public:
    // `path` is the file's, or the line's number; empty for what was no text.
    ErrorList(std::string path, bool is_line) : origin(std::move(path)), one_line(is_line) {}

    void AddError(int line, int column, const std::string& message) override {
        // Later complaints of the parser are about what the first one made of the text.
        if (list.empty()) Add({line, column}, true, message.substr(0, kMaxParserError));
    }

    // Adds what is wrong with a message, which is called `name`, and with all that is in it. `tree`
    // is null for what was no text.
    void CheckMessage(const Message& message, const std::string& name,
                      TextFormat::ParseLocation location, const TextFormat::ParseInfoTree* tree) {
        Check(location, name, MessageError(message));
        if (const auto* step = DynamicCastToGenerated<Step>(&message)) CountFaults(*step, location);
        const auto* reflection = message.GetReflection();
        std::vector<const FieldDescriptor*> fields;
        reflection->ListFields(message, &fields);
        for (const FieldDescriptor* field : fields) {
            const int count = field->is_repeated() ? reflection->FieldSize(message, field) : 1;
            for (int i = 0; i < count; ++i) CheckField(message, *field, i, tree);
        }
    }

    void ThrowIfAny() const {
        if (!list.empty()) throw BadScenario(list);
    }

    const std::string& text() const { return list; }

  private:
    // Of so many in a row the first would have to hit before the last comes: a matter of luck.
    void CountFaults(const Step& step, TextFormat::ParseLocation location) {
        if (!step.has_say()) faults_in_a_row = step.has_fault() ? faults_in_a_row + 1 : 0;
        if (faults_in_a_row != velmar_phone::kMaxFaults + 1) return;
        Check(location, "fault",
              "expected at most " + std::to_string(velmar_phone::kMaxFaults) + " in a row");
    }

    void CheckField(const Message& message, const FieldDescriptor& field, int index,
                    const TextFormat::ParseInfoTree* tree) {
        const auto* reflection = message.GetReflection();
        const bool is_repeated = field.is_repeated();
        const int place = is_repeated ? index : -1;
        const auto location =
                tree == nullptr ? TextFormat::ParseLocation() : tree->GetLocation(&field, place);
        if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
            CheckMessage(is_repeated ? reflection->GetRepeatedMessage(message, &field, index)
                                     : reflection->GetMessage(message, &field),
                         field.name(), location,
                         tree == nullptr ? nullptr : tree->GetTreeForNested(&field, place));
        } else if (field.cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
            const std::string text = is_repeated
                                             ? reflection->GetRepeatedString(message, &field, index)
                                             : reflection->GetString(message, &field);
            const std::string error = TextError(field, text);
            if (error.empty()) return;
            Add(location, one_line || field.name() == kPatternField, field.name() + ": " + error);
        }
    }

    void Check(TextFormat::ParseLocation location, const std::string& subject,
               const std::string& error) {
        if (!error.empty()) Add(location, one_line, subject + ": " + error);
    }

    // The parser counts from 0.
    void Add(TextFormat::ParseLocation location, bool with_column, const std::string& message) {
        if (origin.empty()) {
            list += (list.empty() ? "" : "; ") + message;
            return;
        }
        list += (list.empty() ? "" : "\n") + origin;
        if (!one_line) list += ":" + std::to_string(location.line + 1);
        if (with_column) list += ":" + std::to_string(location.column + 1);
        // A path may hold a byte 0, which would end the list.
        list += ": " + Printable(message);
    }

    const std::string origin;
    const bool one_line;
    std::string list;
    int faults_in_a_row = 0;
};

// Makes the path of a file of the workstation one that leads from here.
template <typename WithSource>
void ResolveSource(const std::filesystem::path& folder, WithSource* origin) {
    if (!origin->has_source()) return;
    origin->set_source(folder / origin->source());
    Inputs().push_back(origin->source());
}

void ResolveSources(const std::filesystem::path& folder, Phone* phone) {
    for (File& file : *phone->mutable_file()) ResolveSource(folder, &file);
}

void ResolveSources(const std::filesystem::path& folder, Step* step) {
    if (step->has_push()) ResolveSource(folder, step->mutable_push());
    if (step->has_write_file()) ResolveSource(folder, step->mutable_write_file());
}

void ResolveSources(const std::filesystem::path& folder, Scenario* scenario) {
    if (scenario->has_phone()) ResolveSources(folder, scenario->mutable_phone());
    for (Step& step : *scenario->mutable_step()) ResolveSources(folder, &step);
}

// Parses a message called `name`, and checks it.
template <typename Parsed>
Parsed Parse(const std::string& path, const std::string& text, const std::string& name,
             TextFormat::ParseInfoTree* tree, bool is_line = false) {
    Parsed parsed;
    ErrorList errors(path, is_line);
    TextFormat::Parser parser;
    parser.RecordErrorsTo(&errors);
    parser.WriteLocationsTo(tree);
    // What is missing is looked for below, where the line is known.
    parser.AllowPartialMessage(true);
    parser.ParseFromString(text, &parsed);
    errors.ThrowIfAny();
    ResolveSources(std::filesystem::path(path).parent_path(), &parsed);
    errors.CheckMessage(parsed, name, {0, 0}, tree);
    errors.ThrowIfAny();
    return parsed;
}

}  // namespace

std::string SizeError(size_t size) {
    if (size >= 1 && size <= kMaxMessageOfModem) return "";
    return "expected a message of 1 to " + std::to_string(kMaxMessageOfModem) + " bytes, found " +
           std::to_string(size);
}

ScenarioFile ParseScenario(const std::string& path, const std::string& text) {
    TextFormat::ParseInfoTree tree;
    ScenarioFile file = {path, Parse<Scenario>(path, text, "scenario", &tree), {}};
    const auto* steps = Scenario::descriptor()->FindFieldByName("step");
    for (int i = 0; i < file.scenario.step_size(); ++i) {
        file.step_lines.push_back(tree.GetLocation(steps, i).line + 1);
    }
    return file;
}

std::string ErrorsOf(const Message& part, const std::string& name) {
    ErrorList errors("", false);
    errors.CheckMessage(part, name, {}, nullptr);
    return errors.text();
}

ScenarioFile ReadScenario(const std::string& path) {
    return ParseScenario(path, ReadInput(path));
}

Phone ParsePhone(const std::string& path, const std::string& text) {
    TextFormat::ParseInfoTree tree;
    return Parse<Phone>(path, text, "phone", &tree);
}

Step ParseStep(size_t line, const std::string& text) {
    TextFormat::ParseInfoTree tree;
    return Parse<Step>(std::to_string(line), text, "step", &tree, true);
}

}  // namespace velmar_sim
