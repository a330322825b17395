#pragma once

#include <string>

#include "bench/report.h"

namespace velmar_bench {

// Measures in this process, in a phone in `folder`, what becomes of one message of each kind once
// it has been read, beside its baseline and beside decoding and encoding alone. Adds the figures to
// `report`. Main thread. Throws std::runtime_error.
void MeasureDispatch(const std::string& folder, Report* report);

}  // namespace velmar_bench
