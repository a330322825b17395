#include "sim/tool/scenario_reader.h"

#include <errno.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <regex>
#include <system_error>

#include "google/protobuf/io/tokenizer.h"
#include "google/protobuf/text_format.h"

#include "sim/modem/phone_folder.h"
#include "sim/tool/file_push.h"
#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

using google::protobuf::TextFormat;
using velmar_message::VelmarMessage;

constexpr const char* kFaultCalls[] = {"open",  "stat",   "read",   "write", "select", "poll",
                                       "ioctl", "unlink", "rename", "chmod", "close"};

constexpr const char* kEntryPoints[] = {"RILC_Open",
                                        "RILC_OpenV2",
                                        "RILC_Close",
                                        "RILC_Reconnect",
                                        "RILC_RegisterUnsolicitedHandler",
                                        "RILC_Send",
                                        "RILC_SetIndicationFilter"};

// The functions below say what is wrong with a part of a scenario; an empty text is no fault.

std::string FirstOf(std::initializer_list<std::string> faults) {
    for (const std::string& fault : faults) {
        if (!fault.empty()) return fault;
    }
    return "";
}

std::string Unless(bool right, const std::string& expected) {
    return right ? "" : expected;
}

std::string Expected(bool right, const std::string& what, const std::string& found) {
    return Unless(right, "expected " + what + ", found \"" + found + "\"");
}

std::string PathFault(const std::string& path) {
    return Expected(PhoneFolder::IsPhonePath(path), "an absolute path without \"..\"", path);
}

std::string ModeFault(const std::string& mode) {
    return Expected(ModeFromText(mode).has_value(), "permissions in octal such as \"0644\"", mode);
}

std::string SignalFault(const std::string& name) {
    return Expected(SignalFromName(name).has_value(), "a signal such as \"SIGUSR1\"", name);
}

std::string PatternFault(const std::string& pattern) {
    try {
        const std::regex compiled(pattern);
        return "";
    } catch (const std::regex_error& error) {
        return Expected(false, "a regular expression", pattern) + ": " + error.what();
    }
}

std::string FaultOf(const Property& property) {
    return FirstOf({Unless(!property.name().empty(), "expected a property's name"),
                    Unless(PhoneFolder::IsPropertyValue(property.name(), property.value()),
                           "expected a value of at most 91 bytes, or a name that begins with "
                           "\"ro.\"")});
}

std::string FaultOf(const File& file) {
    return FirstOf({PathFault(file.path()), ModeFault(file.mode())});
}

std::string FaultOf(const ModemResponse& answer) {
    if (!answer.has_payload()) return "";
    const auto* field = VelmarMessage::descriptor()->FindFieldByName(answer.payload());
    return Expected(field != nullptr && field->containing_oneof() != nullptr,
                    "a payload such as \"modem_stat_message\"", answer.payload());
}

std::string FaultOf(const Exit& exit) {
    return FirstOf({Unless(exit.has_status() != exit.has_signal(), "expected status or signal"),
                    exit.has_signal() ? SignalFault(exit.signal()) : ""});
}

std::string FaultOf(const LogPattern& line) {
    return FirstOf({Unless(line.has_text() != line.has_matching(), "expected text or matching"),
                    PatternFault(line.matching()),
                    Expected(!line.has_priority() || PriorityFromText(line.priority()),
                             "a priority such as \"I\" or \"4\"", line.priority())});
}

std::string FaultOf(const FileState& file) {
    const int contents =
            (file.has_content() ? 1 : 0) + (file.has_matching() ? 1 : 0) + (file.missing() ? 1 : 0);
    return FirstOf({PathFault(file.path()),
                    Unless(contents <= 1, "expected one of content, matching and missing"),
                    Unless(contents + (file.has_mode() ? 1 : 0) > 0,
                           "expected content, matching, missing or mode"),
                    PatternFault(file.matching()), file.has_mode() ? ModeFault(file.mode()) : ""});
}

std::string FaultOf(const PropertyState& property) {
    return FirstOf({Unless(!property.name().empty(), "expected a property's name"),
                    Unless(property.has_value() != property.unset(), "expected value or unset")});
}

std::string FaultOf(const Fault& fault) {
    const bool known = std::find(std::begin(kFaultCalls), std::end(kFaultCalls), fault.call()) !=
                       std::end(kFaultCalls);
    return FirstOf({Expected(known, "a call such as \"read\"", fault.call()),
                    Unless(!fault.path().empty(), "expected a path"),
                    Unless(fault.has_error() != fault.has_length(), "expected error or length"),
                    Expected(!fault.has_error() || ErrorFromName(fault.error()),
                             "an error such as \"EIO\"", fault.error())});
}

std::string FaultOf(const Radio& radio) {
    for (const RadioResponse& answer : radio.answer()) {
        const bool says_how =
                answer.has_error() || answer.early() || answer.twice() || answer.has_delay_ms();
        if (answer.none() && says_how) return "expected nothing beside none in an answer";
    }
    return "";
}

std::string FaultOf(const RadioRequest& request) {
    return Unless(request.has_request() && request.has_data(), "expected request and data");
}

std::string FaultOf(const Step& step) {
    if (step.any_token() && !step.has_expect()) return "any_token: expected an expect with it";
    switch (step.action_case()) {
        case Step::ACTION_NOT_SET:
            return "expected an action such as send, expect or log";
        case Step::kSendBytes:
            return Unless(!step.send_bytes().empty(), "expected at least one byte");
        case Step::kAnswer:
            return FaultOf(step.answer());
        case Step::kPush:
            return PushFault(step.push());
        case Step::kSignal:
            return SignalFault(step.signal());
        case Step::kExit:
            return FaultOf(step.exit());
        case Step::kLog:
            return FirstOf({FaultOf(step.log()),
                            Unless(!step.log().has_for_ms(), "expected for_ms in no_log only")});
        case Step::kNoLog:
            return FaultOf(step.no_log());
        case Step::kFile:
            return FaultOf(step.file());
        case Step::kProperty:
            return FaultOf(step.property());
        case Step::kSetProperty:
            return FaultOf(step.set_property());
        case Step::kWriteFile:
            return FaultOf(step.write_file());
        case Step::kRemoveFile:
            return PathFault(step.remove_file());
        case Step::kFault:
            return FaultOf(step.fault());
        case Step::kRadio:
            return FaultOf(step.radio());
        case Step::kRadioRequest:
            return FaultOf(step.radio_request());
        default:
            return "";
    }
}

// Collects faults as lines "FILE:LINE: text".
class FaultList : public google::protobuf::io::ErrorCollector {
  public:
    explicit FaultList(std::string file) : path(std::move(file)) {}

    // The parser counts from 0.
    void AddError(int line, int column, const std::string& message) override {
        // Later complaints of the parser are about what the first one made of the text.
        if (text.empty()) Add(std::to_string(line + 1) + ":" + std::to_string(column + 1), message);
    }

    void Check(int line, const std::string& subject, const std::string& fault) {
        if (!fault.empty()) Add(std::to_string(line), subject + ": " + fault);
    }

    void ThrowIfAny() const {
        if (!text.empty()) throw BadScenario(text);
    }

  private:
    void Add(const std::string& place, const std::string& message) {
        text += (text.empty() ? "" : "\n") + path + ":" + place + ": " + message;
    }

    const std::string path;
    std::string text;
};

int LineOf(const TextFormat::ParseInfoTree& tree, const google::protobuf::Descriptor* type,
           const char* field, int index) {
    return tree.GetLocation(type->FindFieldByName(field), index).line + 1;
}

void CheckPhone(const Phone& phone, const TextFormat::ParseInfoTree& tree, FaultList* faults) {
    const auto line_of = [&](const char* field, int index) {
        return LineOf(tree, Phone::descriptor(), field, index);
    };
    for (int i = 0; i < phone.property_size(); ++i) {
        faults->Check(line_of("property", i), "property", FaultOf(phone.property(i)));
    }
    for (int i = 0; i < phone.file_size(); ++i) {
        faults->Check(line_of("file", i), "file", FaultOf(phone.file(i)));
    }
    for (int i = 0; i < phone.missing_size(); ++i) {
        faults->Check(line_of("missing", i), "missing", PathFault(phone.missing(i)));
    }
    faults->Check(line_of("radio", -1), "radio", FaultOf(phone.radio()));
    if (phone.has_missing_entry_point()) {
        const std::string& name = phone.missing_entry_point();
        const bool known = std::find(std::begin(kEntryPoints), std::end(kEntryPoints), name) !=
                           std::end(kEntryPoints);
        faults->Check(line_of("missing_entry_point", -1), "missing_entry_point",
                      Expected(known, "an entry point such as \"RILC_Send\"", name));
    }
    if (phone.has_umask()) faults->Check(line_of("umask", -1), "umask", ModeFault(phone.umask()));
}

// Makes the path of a pushed file one that leads from here.
void ResolveSource(const std::string& scenario_path, Step* step) {
    if (!step->push().has_source()) return;
    const std::filesystem::path folder = std::filesystem::path(scenario_path).parent_path();
    step->mutable_push()->set_source(folder / step->push().source());
}

}  // namespace

ScenarioFile ParseScenario(const std::string& path, const std::string& text) {
    ScenarioFile file;
    file.path = path;
    FaultList faults(path);
    TextFormat::ParseInfoTree tree;
    TextFormat::Parser parser;
    parser.RecordErrorsTo(&faults);
    parser.WriteLocationsTo(&tree);
    parser.ParseFromString(text, &file.scenario);
    faults.ThrowIfAny();

    const auto* type = Scenario::descriptor();
    if (file.scenario.has_phone()) {
        CheckPhone(file.scenario.phone(),
                   *tree.GetTreeForNested(type->FindFieldByName("phone"), -1), &faults);
    }
    for (int i = 0; i < file.scenario.step_size(); ++i) {
        Step& step = *file.scenario.mutable_step(i);
        ResolveSource(path, &step);
        const int line = LineOf(tree, type, "step", i);
        file.step_lines.push_back(line);
        const auto* action = Step::descriptor()->FindFieldByNumber(step.action_case());
        faults.Check(line, action == nullptr ? "step" : action->name(), FaultOf(step));
    }
    if (file.scenario.step_size() == 0) faults.Check(1, "scenario", "expected at least one step");
    faults.ThrowIfAny();
    return file;
}

ScenarioFile ReadScenario(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw BadScenario(path + ": cannot be read: " + std::generic_category().message(errno));
    }
    const std::string text((std::istreambuf_iterator<char>(stream)),
                           std::istreambuf_iterator<char>());
    return ParseScenario(path, text);
}

}  // namespace velmar_sim
