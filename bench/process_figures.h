#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace velmar_bench {

// What the kernel tells of a running process.
struct ProcessFigures {
    // Resident memory in KiB: all of it, its share of it, and what no file stands behind.
    int64_t rss_kib = 0;
    int64_t pss_kib = 0;
    int64_t anonymous_kib = 0;
    size_t descriptors = 0;
    size_t threads = 0;
    // How many times a thread of it went to sleep, which is as often as one was woken.
    int64_t sleeps = 0;
};

// The figures of `process` now. Throws std::runtime_error when there is no such process. Any
// thread.
ProcessFigures FiguresOf(pid_t process);

// Processor time that all threads of `process` have used. Throws as above. Any thread.
std::chrono::nanoseconds ProcessorTimeOf(pid_t process);

}  // namespace velmar_bench
