#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace velmar_bench {

// Something that is measured beside something else: an operation, and the process that it keeps
// busy.
struct Side {
    std::function<void()> operation;
    pid_t process;
};

// Figures of one side, in microseconds: the time that each operation took, and the processor time
// of an operation in each turn.
struct Samples {
    std::vector<double> wall_us;
    std::vector<double> processor_us;
};

// Lets the sides take turns, `rounds` each and one before to warm up. A turn is `count` operations.
// Main thread.
std::vector<Samples> TakeTurns(const std::vector<Side>& sides, int rounds, int count);

// The value that the part `share` of `values`, of which there is at least one, does not exceed; by
// default the middle one.
double Quantile(std::vector<double> values, double share = 0.5);

// A table's heading, and a row: a figure of the service beside that of its baseline, or of whatever
// the heading names, and their ratio. `wanted` is printed as it stands.
void PrintHeading(const char* product, const char* baseline, const char* ratio);
void PrintRow(const std::string& what, double product, double baseline, const char* wanted = "");

}  // namespace velmar_bench
