#include "bench/comparison.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iostream>

#include "android-base/stringprintf.h"

#include "sim/tool/process_figures.h"

namespace velmar_bench {

using android::base::StringPrintf;
using std::chrono::steady_clock;

namespace {

double MicrosecondsOf(std::chrono::nanoseconds time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

Samples TakeTurn(const Side& side, int count) {
    Samples samples;
    const auto begin = velmar_sim::ProcessorTimeOf(side.process);
    for (int i = 0; i < count; ++i) {
        const auto start = steady_clock::now();
        side.operation();
        samples.wall_us.push_back(MicrosecondsOf(steady_clock::now() - start));
    }
    const auto used = velmar_sim::ProcessorTimeOf(side.process) - begin;
    samples.processor_us.push_back(MicrosecondsOf(used) / count);
    return samples;
}

std::string Number(double value) {
    const bool is_small = value < 100 && value != static_cast<int>(value);
    return StringPrintf("%.*f", is_small ? 2 : 0, value);
}

}  // namespace

std::vector<Samples> TakeTurns(const std::vector<Side>& sides, int rounds, int count) {
    std::vector<Samples> all(sides.size());
    for (const Side& side : sides) TakeTurn(side, count);
    for (int round = 0; round < rounds; ++round) {
        for (size_t i = 0; i < sides.size(); ++i) {
            const Samples turn = TakeTurn(sides[i], count);
            all[i].wall_us.insert(all[i].wall_us.end(), turn.wall_us.begin(), turn.wall_us.end());
            all[i].processor_us.push_back(turn.processor_us.front());
        }
    }
    return all;
}

double Quantile(std::vector<double> values, double share) {
    const auto position = static_cast<size_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(position),
                     values.end());
    return values[position];
}

void PrintHeading(const char* product, const char* baseline, const char* ratio) {
    std::cout << StringPrintf("| %-52s | %10s | %10s | %6s | %6s |\n|---|---|---|---|---|\n",
                              "what", product, baseline, ratio, "wanted");
}

void PrintRow(const std::string& what, double product, double baseline, const char* wanted) {
    const std::string ratio = baseline != 0 ? StringPrintf("%.2f", product / baseline) : "";
    std::cout << StringPrintf("| %-52s | %10s | %10s | %6s | %6s |\n", what.c_str(),
                              Number(product).c_str(), Number(baseline).c_str(), ratio.c_str(),
                              wanted)
              << std::flush;
}

}  // namespace velmar_bench
