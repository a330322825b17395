#pragma once

namespace velmar_bench {

// Measures in this process, in a phone of its own, what becomes of one message of each kind once it
// has been read, beside its baseline and beside decoding and encoding alone, in `rounds` turns
// each. Prints a row for each. Main thread. Throws std::runtime_error.
void MeasureDispatch(int rounds);

}  // namespace velmar_bench
