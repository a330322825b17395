#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

#include "CLI/CLI.hpp"

#include "sim/tool/bad_input.h"
#include "sim/tool/decode_command.h"
#include "sim/tool/interruption.h"
#include "sim/tool/message_text.h"
#include "sim/tool/preview_command.h"
#include "sim/tool/replay_command.h"
#include "sim/tool/run_command.h"
#include "sim/tool/session.h"
#include "sim/tool/shell_command.h"
#include "sim/tool/version.h"

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
    CLI::App app("Runs the velmar service in a simulated phone and plays its modem.", "velmar_sim");
    app.require_subcommand(1);
    app.set_version_flag("--version", velmar_sim::kVersionText, "Print the version and exit");
    int status = velmar_sim::kBadInput;
    velmar_sim::AddRunCommand(&app, &status);
    velmar_sim::AddPreviewCommand(&app, &status);
    velmar_sim::AddShellCommand(&app, &status);
    velmar_sim::AddDecodeCommand(&app, &status);
    velmar_sim::AddReplayCommand(&app, &status);
    const auto is_named = [argv](const CLI::App* command) {
        return command->get_name() == argv[1];
    };
    if (argc > 1 && *argv[1] != '-' && app.get_subcommands(is_named).empty()) {
        throw velmar_sim::BadInput(std::string("velmar_sim: expected a command, found ") + argv[1] +
                                   "; --help lists them");
    }
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
    int status = velmar_sim::kBadInput;
    try {
        status = ExecuteCommandLine(argc, argv);
    } catch (const velmar_sim::BadInput& error) {
        std::cerr << velmar_sim::Printable(error.what()) + "\n";
    } catch (const std::exception& error) {
        // A reader that has closed is no error.
        if (velmar_sim::NotedSignal() != SIGPIPE) {
            std::cerr << "velmar_sim: " + velmar_sim::Printable(error.what()) + "\n";
        }
    }
    if (!std::cout.flush() && velmar_sim::NotedSignal() != SIGPIPE) {
        std::cerr << "standard output: cannot be written\n";
        status = velmar_sim::kBadInput;
    }
    if (const int number = velmar_sim::NotedSignal()) {
        static_cast<void>(signal(number, SIG_DFL));
        static_cast<void>(raise(number));
    }
    return status;
}
