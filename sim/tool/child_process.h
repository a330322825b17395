#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "android-base/unique_fd.h"

namespace velmar_sim {

// How to start a program.
struct Launch {
    std::string executable;
    // Its name and its arguments.
    std::vector<std::string> arguments;
    // NAME=VALUE; each takes the place of an inherited variable.
    std::vector<std::string> variables;
    mode_t umask = 0077;
};

// A program that runs beside this one and dies with it, and with which dies what it has started.
// When this program is killed its own programs die, but not what those have started. Operations
// belong to the thread that started it, which must be the main thread: the kernel ends the program
// when that thread ends.
class ChildProcess {
  public:
    // Gets the bytes of one write of the program; the empty string at the end. Called on a thread
    // of its own for each of the two outputs.
    using OutputReader = std::function<void(const std::string&)>;

    // Starts the program. An output without a reader goes nowhere. A program that cannot be run
    // says so on its standard error and ends with status 127. Throws std::runtime_error when no
    // process can be made.
    ChildProcess(const Launch& launch, OutputReader output, OutputReader errors);
    // Kills what still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t id() const { return pid; }

    // Whether the program has not ended yet. After its end all that it wrote has been read, and
    // what it had started is killed.
    bool IsRunning();

    // How it ended, as wait gives it. Only after the end.
    int wait_status() const { return status; }

    // What it took, with those of its children that it has waited for. Only after the end.
    const rusage& used() const { return usage; }

    // Sends a signal; only while it runs.
    void Signal(int number) const;

    // Ends the program at once and waits for its end.
    void Kill();

    // "exit status 1" or "SIGSEGV".
    static std::string DescribeEnd(int wait_status);

  private:
    void StartReader(android::base::unique_fd output, OutputReader reader);

    pid_t pid = -1;
    int status = 0;
    rusage usage = {};
    bool running = false;
    std::vector<android::base::unique_fd> outputs;
    std::vector<std::thread> readers;
};

}  // namespace velmar_sim
