// Measures the service beside baselines that do only what cannot be left out, and prints one table.

#include <cstdio>
#include <exception>
#include <string>

#include "CLI/CLI.hpp"

#include "bench/dispatch.h"
#include "bench/report.h"
#include "bench/whole_process.h"
#include "sim/modem/temporary_folder.h"

namespace velmar_bench {

namespace {

constexpr int kFailed = 1;
constexpr int kBadInput = 2;

struct Options {
    Programs programs = {ProgramBesideThis("velmar"), ProgramBesideThis("velmar_bare")};
    int rounds = 31;
    int idle_seconds = 60;
};

void Measure(const Options& options) {
    const velmar_sim::TemporaryFolder folder;
    Report report;
    {
        WholeProcess whole(folder.path(), options.programs, options.rounds, &report);
        whole.MeasureStart();
        whole.MeasureRequests();
        whole.MeasureFile();
        whole.MeasureBursts();
        whole.MeasureMemory();
        whole.MeasureSize(options.programs);
        Report dispatch;
        whole.MeasureWakeUps(options.idle_seconds,
                             [&] { MeasureDispatch(folder.path() + "/dispatch", &dispatch); });
        report.Append(dispatch);
    }
    report.Print();
}

int RunBenchmarks(int argc, char** argv) {
    Options options;
    CLI::App app("Measures velmar beside baselines, in simulated phones.");
    app.add_option("--velmar", options.programs.velmar, "The service's executable")
            ->check(CLI::ExistingFile)
            ->capture_default_str();
    app.add_option("--bare", options.programs.bare, "The baselines' executable")
            ->check(CLI::ExistingFile)
            ->capture_default_str();
    app.add_option("--rounds", options.rounds, "How many turns each has")
            ->check(CLI::Range(1, 10000))
            ->capture_default_str();
    app.add_option("--idle-seconds", options.idle_seconds, "For how long wake-ups are counted")
            ->check(CLI::Range(1, 86400))
            ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadInput;
    }
    Measure(options);
    return 0;
}

}  // namespace

}  // namespace velmar_bench

int main(int argc, char** argv) {
    try {
        return velmar_bench::RunBenchmarks(argc, argv);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "velmar_bench: %s\n", error.what());
        return velmar_bench::kFailed;
    }
}
