#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "CLI/CLI.hpp"

#include "sim/tool/interruption.h"
#include "sim/tool/run_command.h"

namespace {

// A file or socket that took the place of a closed standard output would get what is meant for
// that.
void OpenStandardDescriptors() {
    int opened;
    do {
        opened = open("/dev/null", O_RDWR);
    } while (opened >= 0 && opened <= STDERR_FILENO);
    close(opened);
}

int ExecuteCommandLine(int argc, char** argv) {
    CLI::App app("Runs the velmar service in a simulated phone and plays its modem.");
    app.require_subcommand(1);
    int status = velmar_sim::kBadInput;
    velmar_sim::AddRunCommand(&app, &status);
    try {
        app.parse(argc, argv);
        return status;
    } catch (const CLI::ParseError& error) {
        // Asking for help ends the parsing too.
        return app.exit(error) == 0 ? velmar_sim::kPassed : velmar_sim::kBadInput;
    }
}

}  // namespace

int main(int argc, char** argv) {
    OpenStandardDescriptors();
    velmar_sim::NoteSignals();
    int status = velmar_sim::kFailed;
    try {
        status = ExecuteCommandLine(argc, argv);
    } catch (const std::exception& error) {
        static_cast<void>(fprintf(stderr, "velmar_sim: %s\n", error.what()));
    }
    if (const int number = velmar_sim::NotedSignal()) {
        static_cast<void>(signal(number, SIG_DFL));
        static_cast<void>(raise(number));
    }
    return status;
}
