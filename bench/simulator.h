#pragma once

#include <string>

namespace velmar_bench {

// Measures what `tool`, which is velmar_sim, takes for works of two sizes with the service
// `velmar`, and prints a table with the larger one beside the smaller one. Main thread. Throws
// std::runtime_error.
void MeasureSimulator(const std::string& tool, const std::string& velmar);

}  // namespace velmar_bench
