#include "sim/tool/simulation.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <utility>

#include "android-base/file.h"
#include "android-base/strings.h"

#include "sim/modem/errors.h"
#include "sim/phone/phone_state.h"
#include "sim/ril/radio_layout.h"
#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

// The programs call themselves by this name whatever the executable's path is.
constexpr char kProgramName[] = "velmar";

// Where a build keeps its libraries, seen from its programs.
constexpr char kLibraries[] = "../lib";

// The folder of the radio's client library: that of the service's own build, or else of this
// program's. Throws std::runtime_error when neither has it.
std::string LibraryFolder(const std::string& variant, const std::string& executable) {
    std::string tried;
    for (const std::filesystem::path& program :
         {std::filesystem::absolute(executable), std::filesystem::read_symlink("/proc/self/exe")}) {
        const auto folder =
                program.parent_path() / kLibraries / velmar_radio::kLibraryFolder / variant;
        if (std::filesystem::exists(folder)) return folder;
        tried += (tried.empty() ? "" : " and ") + folder.string();
    }
    throw std::runtime_error("the radio's client library was not found, tried " + tried +
                             "; a phone with no_radio_library goes without");
}

// The variable that leads the service to the radio's client library, if the phone has one.
std::vector<std::string> LibraryPath(const Phone& description, const std::string& executable) {
    if (description.no_radio_library()) return {};
    const std::string variant =
            description.has_missing_entry_point()
                    ? velmar_radio::kVariantWithout + description.missing_entry_point()
                    : velmar_radio::kFullVariant;
    const std::string folder = LibraryFolder(variant, executable);
    // The environment does not change.
    const char* inherited = getenv("LD_LIBRARY_PATH");  // NOLINT(concurrency-mt-unsafe)
    return {"LD_LIBRARY_PATH=" + folder +
            (inherited == nullptr ? "" : std::string(":") + inherited)};
}

}  // namespace

File WithContent(File file) {
    std::string content;
    if (!file.has_source()) return file;
    if (!android::base::ReadFileToString(file.source(), &content, true)) {
        ThrowErrno("read " + file.source());
    }
    file.set_content(content);
    return file;
}

Simulation::Simulation(const Phone& description, const std::string& velmar, PhoneFolder folder,
                       EventStream* event_stream)
    : events(event_stream),
      executable(velmar),
      umask_of_programs(ModeFromText(description.umask()).value_or(0)),
      library_path(LibraryPath(description, velmar)),
      phone_folder(std::move(folder)),
      log_stream(phone_folder, events),
      simulated_modem(phone_folder, events),
      thermal_driver(phone_folder, events),
      fault_injector(phone_folder, events),
      simulated_radio(phone_folder, events) {
    for (const File& file : description.file()) {
        phone_folder.Remove(file.path());
        WriteFile(file);
    }
    for (const std::string& path : description.missing()) Remove(path);
    for (const Property& property : description.property()) {
        phone_folder.SetProperty(property.name(), property.value());
    }
    for (const std::string& name : description.refused_property()) {
        phone_folder.RefuseProperty(name);
    }
    if (description.has_radio()) simulated_radio.Behave(description.radio());
    if (description.modem_state() != 0) simulated_modem.SetState(description.modem_state());
}

void Simulation::WriteFile(const File& file) const {
    phone_folder.WriteFile(file.path(), WithContent(file).content(),
                           ModeFromText(file.mode()).value_or(0));
}

void Simulation::Remove(const std::string& path) const {
    if (!phone_folder.Mode(path)) {
        throw std::runtime_error("remove " + path + ": the phone has no such file or directory");
    }
    phone_folder.Remove(path);
}

Launch Simulation::LaunchOf(const std::vector<std::string>& arguments) const {
    Launch launch;
    launch.executable = executable;
    launch.arguments = {kProgramName};
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    launch.variables = {std::string(velmar_phone::kRootVariable) + "=" + phone_folder.root()};
    launch.variables.insert(launch.variables.end(), library_path.begin(), library_path.end());
    launch.umask = umask_of_programs;
    return launch;
}

std::unique_ptr<ChildProcess> Simulation::Start(const std::vector<std::string>& arguments,
                                                std::string* output) {
    const Launch launch = LaunchOf(arguments);
    events->EmitText("run " + android::base::Join(launch.arguments, ' '));
    const auto to_text = [output](const std::string& written) { *output += written; };
    return std::make_unique<ChildProcess>(
            launch,
            output == nullptr ? ToLog(kStandardOutputTag) : ChildProcess::OutputReader(to_text),
            ToLog(kStandardErrorTag));
}

ChildProcess::OutputReader Simulation::ToLog(const char* plain_tag) {
    return [this, plain_tag,
            unfinished = std::make_shared<std::string>()](const std::string& written) {
        *unfinished += written;
        // The last line may lack its line feed.
        if (written.empty() && !unfinished->empty()) *unfinished += '\n';
        const size_t end = unfinished->rfind('\n') + 1;
        for (size_t begin = 0; begin < end;) {
            const size_t line_end = unfinished->find('\n', begin);
            log_stream.Append(
                    {Event::Kind::kLog, unfinished->substr(begin, line_end - begin), plain_tag});
            begin = line_end + 1;
        }
        unfinished->erase(0, end);
    };
}

}  // namespace velmar_sim
