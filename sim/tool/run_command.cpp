#include "sim/tool/run_command.h"

#include <unistd.h>

#include <exception>
#include <filesystem>
#include <iostream>

#include "sim/tool/log_stream.h"
#include "sim/tool/simulated_phone.h"
#include "sim/tool/step_player.h"
#include "sim/tool/transcript.h"

namespace velmar_sim {

namespace {

constexpr size_t kShownLogLines = 20;

constexpr char kFooter[] =
        "Example:\n"
        "  velmar_sim run hello.textproto\n"
        "with this in hello.textproto:\n"
        "  description: \"The modem asks for a property.\"\n"
        "  phone { modem_state: 4 property { name: \"ro.product.model\" value: \"Phone\" } }\n"
        "  step { send { type: REQUEST token: 7 property_message {\n"
        "      read_request { name: \"ro.product.model\" } } } }\n"
        "  step { expect { type: RESPONSE message_id: 7 token: 7 result: SUCCESS\n"
        "      property_message { read_response { value: \"Phone\" } } } }\n"
        "\n"
        "Exit status: 0 all scenarios passed, 1 one failed, 2 bad usage or a bad scenario.";

std::string VelmarBesideThisProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "velmar";
}

std::string FailureText(const ScenarioFile& file, int step_number, const std::string& reason,
                        const std::vector<LogLine>& last_lines) {
    const auto step = static_cast<size_t>(step_number);
    std::string text = file.path + ":";
    if (step < file.step_lines.size()) text += std::to_string(file.step_lines[step]) + ":";
    text += " " + reason + "\n";
    if (!last_lines.empty()) text += "  last log lines:\n";
    for (const LogLine& line : last_lines) text += "    " + DescribeLogLine(line) + "\n";
    return text;
}

}  // namespace

RunCommand::RunCommand(CLI::App* app)
    : subcommand(app->add_subcommand("run", "Plays scenarios, each on a fresh simulated phone")),
      velmar(VelmarBesideThisProgram()) {
    subcommand->add_option("SCENARIO", paths, "Scenario files, played one after the other")
            ->required()
            ->check(CLI::ExistingFile);
    subcommand->add_option("--velmar", velmar, "The service's executable")->capture_default_str();
    subcommand->add_flag("--keep", keep, "Keep each phone's folder, and name it");
    subcommand->add_flag("--quiet", quiet, "Show the verdicts only");
    subcommand
            ->add_option("--time-factor", time_factor,
                         "What has to come may take so many times as long as its scenario says")
            ->envname("VELMAR_SIM_TIME_FACTOR")
            ->check(CLI::Range(0.01, 1000.0))
            ->capture_default_str();
    subcommand->footer(kFooter);
}

int RunCommand::Execute() {
    if (access(velmar.c_str(), X_OK) != 0) {
        std::cerr << "--velmar: expected an executable, found " + velmar + "\n";
        return kBadInput;
    }
    std::vector<ScenarioFile> files;
    try {
        for (const std::string& path : paths) files.push_back(ReadScenario(path));
    } catch (const BadScenario& error) {
        std::cerr << std::string(error.what()) + "\n";
        return kBadInput;
    }
    size_t failed = 0;
    for (const ScenarioFile& file : files) {
        if (!PlayScenario(file)) ++failed;
    }
    if (failed > 0) {
        std::cout << "FAILED: " << failed << " of " << files.size() << " scenarios" << std::endl;
        return kFailed;
    }
    std::cout << "PASSED: " << files.size() << " scenarios, " << steps_played << " steps"
              << std::endl;
    return kPassed;
}

bool RunCommand::PlayScenario(const ScenarioFile& file) {
    const std::string failure = FindFailure(file);
    if (failure.empty()) {
        steps_played += file.scenario.step_size();
        std::cout << "PASS " << file.path << std::endl;
        return true;
    }
    // In one piece, since other output may come between pieces.
    std::cerr << failure;
    std::cout << "FAIL " << file.path << std::endl;
    return false;
}

// Plays the scenario; gives what to say about its failure, nothing when it passed.
std::string RunCommand::FindFailure(const ScenarioFile& file) const {
    Transcript transcript(quiet);
    transcript.Say(file.path + ": " + file.scenario.description());
    try {
        SimulatedPhone phone(file.scenario.phone(), velmar, keep, &transcript);
        if (keep) std::cout << "folder " << phone.folder().root() << std::endl;
        StepPlayer player(file.scenario, time_factor, &phone, &transcript);
        try {
            player.Play();
        } catch (const std::exception& error) {
            return FailureText(file, player.step_number(), error.what(),
                               phone.log().Last(kShownLogLines));
        }
    } catch (const std::exception& error) {
        return file.path + ": " + error.what() + "\n";
    }
    return "";
}

}  // namespace velmar_sim
