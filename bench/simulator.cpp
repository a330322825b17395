#include "bench/simulator.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "android-base/stringprintf.h"

#include "bench/comparison.h"
#include "sim/modem/temporary_folder.h"
#include "sim/tool/child_process.h"

namespace velmar_bench {

namespace {

using android::base::StringPrintf;
using std::chrono::steady_clock;

constexpr int kSizes[] = {1000, 10000, 50000};
// So many times the growth of its work may a figure have.
constexpr double kAllowance = 1.2;
// The least of them counts: what else the machine does only adds.
constexpr int kTurns = 3;
constexpr std::chrono::milliseconds kLookInterval{1};

constexpr char kPhone[] = R"(phone { modem_state: 4 property { name: "p" value: "v" } })";
constexpr char kExchange[] = R"(
step { send { type: REQUEST token: %d property_message { read_request { name: "p" } } } }
step { expect { type: RESPONSE message_id: 7 token: %d result: SUCCESS
                property_message { read_response { value: "v" } } } })";

struct Cost {
    double user_s;
    double wall_s;
    double resident_kib;
};

// Runs a command without its output. What it takes holds the part of the service that it started.
Cost CostOf(const std::vector<std::string>& command) {
    velmar_sim::Launch launch;
    launch.executable = command[0];
    launch.arguments = command;
    const auto begin = steady_clock::now();
    velmar_sim::ChildProcess process(launch, nullptr,
                                     [](const std::string& text) { std::cerr << text; });
    while (process.IsRunning()) std::this_thread::sleep_for(kLookInterval);
    const std::chrono::duration<double> wall = steady_clock::now() - begin;
    if (process.wait_status() != 0) {
        throw std::runtime_error(command[0] + " " + command[1] + " has failed");
    }
    const rusage& used = process.used();
    const std::chrono::duration<double> user = std::chrono::seconds(used.ru_utime.tv_sec) +
                                               std::chrono::microseconds(used.ru_utime.tv_usec);
    return {user.count(), wall.count(), static_cast<double>(used.ru_maxrss)};
}

}  // namespace

void MeasureSimulator(const std::string& tool, const std::string& velmar) {
    const velmar_sim::TemporaryFolder folder;
    const std::string scenario = folder.path() + "/scenario";
    const std::string trace = folder.path() + "/trace";
    const std::string config = folder.path() + "/modem_stat.conf";
    struct {
        std::string what;
        std::string unit;
        double Cost::*figure;
        std::vector<std::string> command;
        double last = 0;
    } works[] = {
            {"run --trace, ",
             " exchanges, user s",
             &Cost::user_s,
             {tool, "run", "--velmar", velmar, "--quiet", "--trace", trace, scenario}},
            {"replay --fast, ",
             " messages, user s",
             &Cost::user_s,
             {tool, "replay", "--velmar", velmar, "--quiet", "--fast", trace}},
            {"decode, ", " exchanges, resident KiB", &Cost::resident_kib, {tool, "decode", trace}},
            {"preview, ",
             " lines, s",
             &Cost::wall_s,
             {tool, "preview", "--velmar", velmar, config}},
    };
    PrintHeading("larger", "smaller", "growth");
    int smaller = 0;
    for (const int size : kSizes) {
        std::ofstream steps(scenario);
        std::ofstream lines(config);
        steps << kPhone;
        for (int i = 0; i < size; ++i) {
            steps << StringPrintf(kExchange, i, i);
            lines << "module" << i << ":v=" << i << ",t=1\n";
        }
        steps.close();
        lines.close();
        for (auto& work : works) {
            double figure = CostOf(work.command).*work.figure;
            for (int turn = 1; turn < kTurns; ++turn) {
                figure = std::min(figure, CostOf(work.command).*work.figure);
            }
            const bool is_memory = work.figure == &Cost::resident_kib;
            const double growth = is_memory ? 1 : static_cast<double>(size) / smaller;
            if (smaller != 0) {
                PrintRow(work.what + std::to_string(size) + work.unit, figure, work.last,
                         StringPrintf("%.2f", kAllowance * growth).c_str());
            }
            work.last = figure;
        }
        smaller = size;
    }
}

}  // namespace velmar_bench
