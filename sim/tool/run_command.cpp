#include "sim/tool/run_command.h"

#include <signal.h>

#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/tool/bad_input.h"
#include "sim/tool/interruption.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/message_text.h"
#include "sim/tool/scenario_reader.h"
#include "sim/tool/session.h"

namespace velmar_sim {

namespace {

constexpr size_t kShownLogLines = 20;

constexpr char kFooter[] =
        "Exit status: 0 all scenarios passed, 1 one failed, 2 bad usage or a bad scenario.";

struct Options {
    std::vector<std::string> paths;
    SessionOptions session;
};

// Plays the scenario; returns what to say about its failure, nothing when it passed.
std::string FindFailure(const ScenarioFile& file, const SessionOptions& options,
                        const SessionWriters& writers) {
    const Scenario& scenario = file.scenario;
    const auto ends_awaited = AwaitedEnds(file.step_lines.size(), [&scenario](size_t i) {
        return scenario.step(static_cast<int>(i)).action_case();
    });
    std::string place = file.path + ": ";
    std::optional<Session> session;
    try {
        session.emplace(place + scenario.description(), scenario.phone(), options, writers);
        StepPlayer& player = session->player();
        player.Start();
        for (int i = 0; i < scenario.step_size(); ++i) {
            place = file.path + ":" + std::to_string(file.step_lines[i]) + ": ";
            player.Play(scenario.step(i), ends_awaited[i]);
        }
        place = file.path + ": ";
        player.Finish();
        return "";
    } catch (const std::exception& error) {
        std::string text = place + error.what() + "\n";
        if (!session) return text;
        const std::vector<LogLine> last = session->simulation().log().Last(kShownLogLines);
        if (!last.empty()) text += "  last log lines:\n";
        for (const LogLine& line : last) {
            text += "    " + DescribeLogLine(line) + "\n";
        }
        return text;
    }
}

int Run(const Options& options) {
    CheckSessionOptions(options.session);
    std::vector<ScenarioFile> files;
    for (const std::string& path : options.paths) files.push_back(ReadScenario(path));
    if (files.size() > 1 && IsKeptAt(options.session)) {
        throw BadInput("--keep=DIR: expected one scenario, found " + std::to_string(files.size()));
    }
    SessionWriters writers(options.session);
    size_t failed = 0;
    size_t steps = 0;
    for (const ScenarioFile& file : files) {
        const std::string failure = FindFailure(file, options.session, writers);
        // Nobody reads on.
        if (NotedSignal() == SIGPIPE) return kFailed;
        // In one piece, since other output may come between pieces.
        std::cerr << Printable(failure);
        std::cout << (failure.empty() ? "PASS " : "FAIL ") << file.path << std::endl;
        if (!failure.empty()) ++failed;
        steps += file.step_lines.size();
        if (NotedSignal() != 0) break;
    }
    if (failed > 0) {
        std::cout << "FAILED: " << failed << " of " << CountOf(files.size(), "scenario")
                  << std::endl;
    } else {
        std::cout << "PASSED: " << CountOf(files.size(), "scenario") << ", "
                  << CountOf(steps, "step") << std::endl;
    }
    writers.Finish();
    return failed > 0 ? kFailed : kPassed;
}

}  // namespace

void AddRunCommand(CLI::App* app, int* status) {
    CLI::App* run = app->add_subcommand("run", "Plays scenarios, each on a fresh simulated phone");
    // The command lives as long as its callback.
    const auto options = std::make_shared<Options>();
    run->add_option("SCENARIO", options->paths,
                    "Scenario files, played one after the other; - is standard input")
            ->required();
    AddSessionOptions(run, &options->session);
    run->footer(kFooter);
    run->callback([options, status] { *status = Run(*options); });
}

}  // namespace velmar_sim
