#include "sim/tool/process_figures.h"

#include <time.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

using std::filesystem::directory_iterator;

// The number behind `name` in a file of lines "NAME: NUMBER ..."; 0 without such a line.
int NumberIn(const std::filesystem::path& path, const std::string& name) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name, 0) == 0) return std::stoi(line.substr(name.size()));
    }
    return 0;
}

}  // namespace

ProcessFigures FiguresOf(pid_t process) {
    const std::filesystem::path place = "/proc/" + std::to_string(process);
    ProcessFigures figures;
    figures.resident_kib = NumberIn(place / "smaps_rollup", "Rss:");
    figures.anonymous_kib = NumberIn(place / "smaps_rollup", "Anonymous:");
    figures.descriptors = static_cast<int>(std::distance(directory_iterator(place / "fd"), {}));
    for (const auto& thread : directory_iterator(place / "task")) {
        ++figures.threads;
        figures.sleeps += NumberIn(thread.path() / "status", "voluntary_ctxt_switches:");
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

}  // namespace velmar_sim
