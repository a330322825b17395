#include "sim/tool/session.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "android-base/strings.h"

#include "sim/modem/temporary_folder.h"
#include "sim/tool/bad_input.h"
#include "sim/tool/capture.h"
#include "sim/tool/interruption.h"
#include "sim/tool/trace.h"
#include "sim/tool/transcript.h"

namespace velmar_sim {

namespace {

bool UsesColours(const std::string& color) {
    if (color != "auto") return color == "always";
    const char* refused = secure_getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0');
}

// Throws BadInput when to record in this file would destroy what a person made.
void CheckTrace(const std::string& path) {
    std::error_code missing;
    if (!std::filesystem::is_regular_file(path, missing)) return;
    for (const std::string& input : Inputs()) {
        // By whatever names.
        if (!std::filesystem::equivalent(path, input, missing)) continue;
        throw BadInput("--trace: " + path + ": expected a file that is not read as well");
    }
    if (HoldsTrace(path)) return;
    throw BadInput("--trace: " + path + ": expected a new file or a trace, found something else");
}

// Makes the phone's folder, once the writers know of the session.
PhoneFolder Begin(const std::string& title, Phone phone, const SessionOptions& options,
                  const SessionWriters& writers, EventStream* events) {
    NoteSignals();
    for (const auto& writer : writers.all()) events->Attach(writer.get());
    events->Emit({Event::Kind::kHeading, title});
    for (File& file : *phone.mutable_file()) file = WithContent(file);
    events->Emit({Event::Kind::kPhone, phone.SerializeAsString()});
    if (options.keep.empty()) return PhoneFolder();
    events->Show(EventStream::Which::kAll);
    PhoneFolder folder(options.keep == kKeepAnywhere ? MakeFolder("kept") : options.keep);
    std::cout << "folder " << folder.root() << std::endl;
    return folder;
}

}  // namespace

void AddServiceOptions(CLI::App* command, SessionOptions* options) {
    options->velmar = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "velmar";
    command->add_option("--velmar", options->velmar,
                        "The service's executable; \"velmar\" beside velmar_sim unless given");
    command->add_option("--time-factor", options->time_factor,
                        "What has to come may take so many times as long as its step says")
            ->envname("VELMAR_SIM_TIME_FACTOR")
            ->check(CLI::Range(0.01, 1000.0))
            ->capture_default_str();
}

void AddWriterOptions(CLI::App* command, SessionOptions* options) {
    command->add_flag("--quiet", options->quiet, "Show the verdicts only");
    command->add_flag("--full", options->full,
                      "Show messages whole, as a scenario's send step takes them");
    command->add_option("--color", options->color, "Colours; auto: on a terminal without NO_COLOR")
            ->check(CLI::IsMember({"auto", "always", "never"}))
            ->capture_default_str();
    command->add_option("--trace", options->traces,
                        "Record what happens in this file: one JSON object a line, or in a .pcap "
                        "the messages for Wireshark; may be given more than once")
            ->type_name("FILE")
            // Or it would take the scenarios behind it.
            ->allow_extra_args(false);
}

void AddSessionOptions(CLI::App* command, SessionOptions* options) {
    AddServiceOptions(command, options);
    AddWriterOptions(command, options);
    command->add_flag("--keep", options->keep,
                      "Keep the phone's folder, and name it; --keep=DIR: keep it there");
}

void CheckSessionOptions(const SessionOptions& options) {
    std::error_code failure;
    if (!std::filesystem::is_regular_file(options.velmar, failure) ||
        access(options.velmar.c_str(), X_OK) != 0) {
        throw BadInput("--velmar: expected an executable, found " + options.velmar);
    }
    if (IsKeptAt(options)) std::filesystem::create_directories(options.keep, failure);
    if (failure || (IsKeptAt(options) && !std::filesystem::is_empty(options.keep, failure))) {
        throw BadInput("--keep: expected a folder that is empty or can be made, found " +
                       options.keep);
    }
    // No signal ends this program while the folder is there.
    const SignalDelay delay;
    try {
        const TemporaryFolder tried;
    } catch (const std::runtime_error& error) {
        throw BadInput(std::string("TMPDIR: expected a folder that can be written: ") +
                       error.what());
    }
}

SessionWriters::SessionWriters(const SessionOptions& options) {
    for (const std::string& path : options.traces) CheckTrace(path);
    if (!options.quiet) {
        writers.push_back(std::make_unique<Transcript>(UsesColours(options.color), options.full));
    }
    for (const std::string& path : options.traces) {
        if (android::base::EndsWith(path, ".pcap")) {
            writers.push_back(std::make_unique<CaptureWriter>(path));
        } else {
            writers.push_back(std::make_unique<TraceWriter>(path));
        }
    }
}

void SessionWriters::Finish() {
    for (const auto& writer : writers) writer->Finish();
}

Session::Session(const std::string& title, const Phone& phone, const SessionOptions& options,
                 const SessionWriters& writers)
    : simulated(phone, options.velmar, Begin(title, phone, options, writers, &event_stream),
                &event_stream),
      step_player(phone, options.time_factor, &simulated, &event_stream) {}

}  // namespace velmar_sim
