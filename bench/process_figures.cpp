#include "bench/process_figures.h"

#include <time.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

#include "sim/modem/errors.h"

namespace velmar_bench {

namespace {

using std::filesystem::directory_iterator;
using velmar_sim::ThrowErrno;

// The number behind `name` in a file of lines "NAME: NUMBER ..."; nothing without such a line.
std::optional<int64_t> FindNumber(const std::filesystem::path& path, const std::string& name) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, name.size(), name) == 0) return std::stoll(line.substr(name.size()));
    }
    return std::nullopt;
}

int64_t NumberIn(const std::filesystem::path& path, const std::string& name) {
    if (const auto number = FindNumber(path, name)) return *number;
    throw std::runtime_error(path.string() + ": expected a line " + name);
}

size_t CountEntries(const std::filesystem::path& directory) {
    return static_cast<size_t>(std::distance(directory_iterator(directory), directory_iterator()));
}

}  // namespace

ProcessFigures FiguresOf(pid_t process) {
    const std::filesystem::path place = "/proc/" + std::to_string(process);
    const std::filesystem::path memory = place / "smaps_rollup";
    ProcessFigures figures;
    figures.rss_kib = NumberIn(memory, "Rss:");
    figures.pss_kib = NumberIn(memory, "Pss:");
    figures.anonymous_kib = NumberIn(memory, "Anonymous:");
    figures.descriptors = CountEntries(place / "fd");
    for (const auto& thread : directory_iterator(place / "task")) {
        const auto sleeps = FindNumber(thread.path() / "status", "voluntary_ctxt_switches:");
        // Without it, the thread has ended since it was listed.
        if (!sleeps) continue;
        ++figures.threads;
        figures.sleeps += *sleeps;
    }
    return figures;
}

std::chrono::nanoseconds ProcessorTimeOf(pid_t process) {
    clockid_t clock = 0;
    const int error = clock_getcpuclockid(process, &clock);
    if (error != 0) ThrowErrno("clock_getcpuclockid", error);
    timespec time = {};
    if (clock_gettime(clock, &time) != 0) ThrowErrno("clock_gettime");
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace velmar_bench
