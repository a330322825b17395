#include "sim/tool/run_command.h"

#include <signal.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/tool/interruption.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario_reader.h"
#include "sim/tool/simulation.h"
#include "sim/tool/step_player.h"
#include "sim/tool/transcript.h"

namespace velmar_sim {

namespace {

constexpr size_t kShownLogLines = 20;

constexpr char kFooter[] =
        "Exit status: 0 all scenarios passed, 1 one failed, 2 bad usage or a bad scenario.";

struct Options {
    std::vector<std::string> paths;
    std::string velmar = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "velmar";
    bool keep = false;
    bool quiet = false;
    double time_factor = 1;
};

// Whether step `current`, or a later one, awaits the end of the service that was started last.
bool IsEndAwaited(const Scenario& scenario, int current) {
    for (int i = current; i < scenario.step_size(); ++i) {
        if (scenario.step(i).has_exit()) return true;
        if (scenario.step(i).has_restart()) return false;
    }
    return false;
}

// Plays the scenario; returns what to say about its failure, nothing when it passed.
std::string FindFailure(const ScenarioFile& file, const Options& options) {
    const Scenario& scenario = file.scenario;
    Transcript transcript;
    EventStream events;
    if (!options.quiet) events.Attach(&transcript);
    events.Emit({Event::Kind::kHeading, file.path + ": " + scenario.description()});
    std::string place = file.path + ": ";
    std::optional<Simulation> simulation;
    try {
        PhoneFolder folder = options.keep ? PhoneFolder(MakeFolder("kept")) : PhoneFolder();
        if (options.keep) std::cout << "folder " << folder.root() << std::endl;
        simulation.emplace(scenario.phone(), options.velmar, std::move(folder), &events);
        StepPlayer player(scenario.phone(), options.time_factor, &*simulation, &events);
        player.Start();
        for (int i = 0; i < scenario.step_size(); ++i) {
            place = file.path + ":" + std::to_string(file.step_lines[i]) + ": ";
            player.Play(scenario.step(i), IsEndAwaited(scenario, i));
        }
        place = file.path + ": ";
        player.Finish();
        return "";
    } catch (const std::exception& error) {
        std::string text = place + error.what() + "\n";
        if (!simulation) return text;
        text += "  last log lines:\n";
        for (const LogLine& line : simulation->log().Last(kShownLogLines)) {
            text += "    " + DescribeLogLine(line) + "\n";
        }
        return text;
    }
}

int Run(const Options& options) {
    if (access(options.velmar.c_str(), X_OK) != 0) {
        std::cerr << "--velmar: expected an executable, found " + options.velmar + "\n";
        return kBadInput;
    }
    std::vector<ScenarioFile> files;
    try {
        for (const std::string& path : options.paths) files.push_back(ReadScenario(path));
    } catch (const BadScenario& error) {
        std::cerr << std::string(error.what()) + "\n";
        return kBadInput;
    }
    size_t failed = 0;
    int steps = 0;
    for (const ScenarioFile& file : files) {
        const std::string failure = FindFailure(file, options);
        // Nobody reads on.
        if (NotedSignal() == SIGPIPE) return kFailed;
        // In one piece, since other output may come between pieces.
        std::cerr << failure;
        std::cout << (failure.empty() ? "PASS " : "FAIL ") << file.path << std::endl;
        if (!failure.empty()) ++failed;
        steps += file.scenario.step_size();
        if (NotedSignal() != 0) break;
    }
    if (failed > 0) {
        std::cout << "FAILED: " << failed << " of " << files.size() << " scenarios" << std::endl;
        return kFailed;
    }
    std::cout << "PASSED: " << files.size() << " scenarios, " << steps << " steps" << std::endl;
    return kPassed;
}

}  // namespace

void AddRunCommand(CLI::App* app, int* status) {
    CLI::App* run = app->add_subcommand("run", "Plays scenarios, each on a fresh simulated phone");
    // The command lives as long as its callback.
    const auto options = std::make_shared<Options>();
    run->add_option("SCENARIO", options->paths, "Scenario files, played one after the other")
            ->required()
            ->check(CLI::ExistingFile);
    run->add_option("--velmar", options->velmar, "The service's executable")->capture_default_str();
    run->add_flag("--keep", options->keep, "Keep each phone's folder, and name it");
    run->add_flag("--quiet", options->quiet, "Show the verdicts only");
    run->add_option("--time-factor", options->time_factor,
                    "What has to come may take so many times as long as its scenario says")
            ->envname("VELMAR_SIM_TIME_FACTOR")
            ->check(CLI::Range(0.01, 1000.0))
            ->capture_default_str();
    run->footer(kFooter);
    run->callback([options, status] { *status = Run(*options); });
}

}  // namespace velmar_sim
