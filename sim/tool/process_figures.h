#pragma once

#include <sys/types.h>

#include <chrono>

namespace velmar_sim {

// What the kernel tells of a running process.
struct ProcessFigures {
    // Resident memory in KiB: all of it, and what no file stands behind.
    int resident_kib = 0;
    int anonymous_kib = 0;
    int descriptors = 0;
    int threads = 0;
    // How many times a thread of it went to sleep, which is as often as one was woken.
    int sleeps = 0;
};

// The figures of `process` now. Throws std::runtime_error when there is no such process. Any
// thread.
ProcessFigures FiguresOf(pid_t process);

// Processor time that all threads of `process` have used. Throws as above. Any thread.
std::chrono::nanoseconds ProcessorTimeOf(pid_t process);

}  // namespace velmar_sim
