#include "sim/tool/simulated_phone.h"

#include <stdlib.h>

#include <filesystem>

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

SimulatedPhone::SimulatedPhone(const Phone& description, const std::string& velmar,
                               bool keep_folder, Transcript* transcript)
    : show(transcript),
      executable(velmar),
      umask_of_programs(ModeFromText(description.umask()).value_or(0)),
      radio_library(SimulatedRadio::LibraryFolder(description)),
      janitor(keep_folder),
      phone_folder(janitor.folder()),
      phone_modem(phone_folder, transcript),
      phone_radio(phone_folder, transcript) {
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
    if (description.has_radio()) phone_radio.Behave(description.radio());
    if (description.modem_state() != 0) phone_modem.SetState(description.modem_state());
}

std::unique_ptr<ChildProcess> SimulatedPhone::Start(const std::vector<std::string>& arguments,
                                                    std::string* output) {
    Launch launch;
    launch.executable = executable;
    launch.arguments = {kProgramName};
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    launch.variables = {std::string(velmar_phone::kRootVariable) + "=" + phone_folder.root()};
    if (radio_library) launch.variables.push_back(LibraryPathVariable());
    launch.umask = umask_of_programs;
    std::string line;
    for (const std::string& word : launch.arguments) line += (line.empty() ? "" : " ") + word;
    show->OnEvent("run " + line);
    const auto to_text = [output](const std::string& written) { *output += written; };
    return std::make_unique<ChildProcess>(
            launch,
            output == nullptr ? ToLog(kStandardOutputTag) : ChildProcess::OutputReader(to_text),
            ToLog(kStandardErrorTag));
}

std::string SimulatedPhone::LibraryPathVariable() const {
    const auto programs = std::filesystem::absolute(executable).parent_path();
    const std::string folder = programs / kLibraries / radio_library.value_or("");
    // The environment does not change.
    const char* inherited = getenv(kLibraryPath);  // NOLINT(concurrency-mt-unsafe)
    return std::string(kLibraryPath) + "=" + folder +
           (inherited == nullptr ? "" : std::string(":") + inherited);
}

ChildProcess::OutputReader SimulatedPhone::ToLog(const char* plain_tag) {
    return [this, cutter = std::make_shared<LogCutter>(plain_tag)](const std::string& written) {
        const auto lines = written.empty() ? cutter->Finish() : cutter->Cut(written);
        for (const LogLine& line : lines) show->Log(line);
        phone_log.Append(lines);
    };
}

}  // namespace velmar_sim
