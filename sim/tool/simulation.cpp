#include "sim/tool/simulation.h"

#include <stdlib.h>

#include <filesystem>
#include <utility>

#include "sim/phone/phone_state.h"
#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

// The programs call themselves by this name whatever the executable's path is.
constexpr char kProgramName[] = "velmar";

constexpr char kLibraryPath[] = "LD_LIBRARY_PATH";
// Where a build keeps its libraries, seen from its programs.
constexpr char kLibraries[] = "../lib";

}  // namespace

Simulation::Simulation(const Phone& description, const std::string& velmar, PhoneFolder folder,
                       EventStream* event_stream)
    : events(event_stream),
      executable(velmar),
      umask_of_programs(ModeFromText(description.umask()).value_or(0)),
      radio_library(SimulatedRadio::LibraryFolder(description)),
      phone_folder(std::move(folder)),
      simulated_modem(phone_folder, events),
      thermal_driver(phone_folder, events),
      fault_injector(phone_folder),
      simulated_radio(phone_folder, events) {
    for (const File& file : description.file()) {
        phone_folder.Remove(file.path());
        phone_folder.WriteFile(file.path(), file.content(), ModeFromText(file.mode()).value_or(0));
    }
    for (const std::string& path : description.missing()) phone_folder.Remove(path);
    for (const Property& property : description.property()) {
        phone_folder.SetProperty(property.name(), property.value());
    }
    for (const std::string& name : description.refused_property()) {
        phone_folder.RefuseProperty(name);
    }
    if (description.has_radio()) simulated_radio.Behave(description.radio());
    if (description.modem_state() != 0) simulated_modem.SetState(description.modem_state());
}

Launch Simulation::LaunchOf(const std::vector<std::string>& arguments) const {
    Launch launch;
    launch.executable = executable;
    launch.arguments = {kProgramName};
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    launch.variables = {std::string(velmar_phone::kRootVariable) + "=" + phone_folder.root()};
    if (radio_library) launch.variables.push_back(LibraryPathVariable());
    launch.umask = umask_of_programs;
    return launch;
}

std::unique_ptr<ChildProcess> Simulation::Start(const std::vector<std::string>& arguments,
                                                std::string* output) {
    const Launch launch = LaunchOf(arguments);
    std::string line;
    for (const std::string& word : launch.arguments) line += (line.empty() ? "" : " ") + word;
    events->EmitText("run " + line);
    const auto to_text = [output](const std::string& written) { *output += written; };
    return std::make_unique<ChildProcess>(
            launch,
            output == nullptr ? ToLog(kStandardOutputTag) : ChildProcess::OutputReader(to_text),
            ToLog(kStandardErrorTag));
}

std::string Simulation::LibraryPathVariable() const {
    const auto programs = std::filesystem::absolute(executable).parent_path();
    const std::string folder = programs / kLibraries / radio_library.value_or("");
    // The environment does not change.
    const char* inherited = getenv(kLibraryPath);  // NOLINT(concurrency-mt-unsafe)
    return std::string(kLibraryPath) + "=" + folder +
           (inherited == nullptr ? "" : std::string(":") + inherited);
}

ChildProcess::OutputReader Simulation::ToLog(const char* plain_tag) {
    return [this, parser = std::make_shared<LogLineParser>(plain_tag)](const std::string& written) {
        const auto lines = written.empty() ? parser->Finish() : parser->Parse(written);
        for (const LogLine& line : lines) {
            Event event = {Event::Kind::kLog, line.text};
            event.tag = line.tag;
            event.priority = line.priority;
            events->Emit(event);
        }
        log_stream.Append(lines);
    };
}

}  // namespace velmar_sim
