#include <cstdio>
#include <exception>
#include <memory>
#include <vector>

#include "CLI/CLI.hpp"

#include "sim/tool/command.h"
#include "sim/tool/run_command.h"

namespace {

int ExecuteCommandLine(int argc, char** argv) {
    CLI::App app("Runs the velmar service in a simulated phone and plays its modem.");
    app.require_subcommand(1);
    std::vector<std::unique_ptr<velmar_sim::Command>> commands;
    commands.push_back(std::make_unique<velmar_sim::RunCommand>(&app));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Asking for help ends the parsing too.
        return app.exit(error) == 0 ? velmar_sim::kPassed : velmar_sim::kBadInput;
    }
    for (const auto& command : commands) {
        if (command->IsChosen()) return command->Execute();
    }
    return velmar_sim::kBadInput;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return ExecuteCommandLine(argc, argv);
    } catch (const std::exception& error) {
        static_cast<void>(fprintf(stderr, "velmar_sim: %s\n", error.what()));
        return velmar_sim::kFailed;
    }
}
