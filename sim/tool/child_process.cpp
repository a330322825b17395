#include "sim/tool/child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "sim/modem/errors.h"
#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

using android::base::unique_fd;

// More than one write of a program can put into a socket.
constexpr size_t kMaxWrite = size_t{1} << 20;
constexpr int kCannotRun = 127;

// Both ends of an output. Unlike a pipe it keeps the borders of the program's writes. One that is
// not read has no reading end.
struct OutputEnds {
    explicit OutputEnds(bool is_read) {
        if (!is_read) {
            writing.reset(open("/dev/null", O_WRONLY | O_CLOEXEC));
            if (writing < 0) ThrowErrno("open /dev/null");
            return;
        }
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            ThrowErrno("socketpair");
        }
        reading.reset(ends[0]);
        writing.reset(ends[1]);
    }
    unique_fd reading;
    unique_fd writing;
};

void ReadOutput(int fd, const ChildProcess::OutputReader& reader) {
    std::string buffer(kMaxWrite, '\0');
    while (true) {
        const ssize_t size = recv(fd, buffer.data(), buffer.size(), 0);
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) break;
        reader(buffer.substr(0, static_cast<size_t>(size)));
    }
    reader("");
}

std::vector<char*> Pointers(std::vector<std::string>* texts) {
    std::vector<char*> pointers;
    for (std::string& text : *texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::string NameOf(const std::string& variable) {
    return variable.substr(0, variable.find('='));
}

std::vector<std::string> Environment(const std::vector<std::string>& variables) {
    std::vector<std::string> all = variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const bool replaced = std::any_of(
                variables.begin(), variables.end(),
                [entry](const std::string& one) { return NameOf(one) == NameOf(*entry); });
        if (!replaced) all.emplace_back(*entry);
    }
    return all;
}

// In the new process, between fork and exec: system calls only.
[[noreturn]] void BecomeProgram(const Launch& launch, char* const* arguments,
                                char* const* environment, pid_t parent, int output, int errors) {
    // With what it starts it is a group of its own, which can be killed as a whole, and which the
    // terminal's signals do not reach.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A parent that ended before that line will not be noticed by it.
    if (getppid() != parent) _exit(kCannotRun);
    // What this process ignores or blocks is not the program's concern.
    for (int number = 1; number < NSIG; ++number) static_cast<void>(signal(number, SIG_DFL));
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    umask(launch.umask);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    execve(launch.executable.c_str(), arguments, environment);
    dprintf(STDERR_FILENO, "cannot run %s: %s\n", launch.executable.c_str(),
            strerrordesc_np(errno));
    _exit(kCannotRun);
}

}  // namespace

ChildProcess::ChildProcess(const Launch& launch, OutputReader output, OutputReader errors) {
    OutputEnds output_ends(output != nullptr);
    OutputEnds error_ends(errors != nullptr);
    std::vector<std::string> argument_texts = launch.arguments;
    std::vector<std::string> environment_texts = Environment(launch.variables);
    const std::vector<char*> arguments = Pointers(&argument_texts);
    const std::vector<char*> environment = Pointers(&environment_texts);

    const pid_t parent = getpid();
    pid = fork();
    if (pid < 0) ThrowErrno("fork");
    if (pid == 0) {
        BecomeProgram(launch, arguments.data(), environment.data(), parent,
                      output_ends.writing.get(), error_ends.writing.get());
    }
    // In both processes, so that the group is there whichever of them comes first.
    static_cast<void>(setpgid(pid, pid));
    output_ends.writing.reset();
    error_ends.writing.reset();
    running = true;
    StartReader(std::move(output_ends.reading), std::move(output));
    StartReader(std::move(error_ends.reading), std::move(errors));
}

void ChildProcess::StartReader(unique_fd output, OutputReader reader) {
    if (reader == nullptr) return;
    outputs.push_back(std::move(output));
    readers.emplace_back(ReadOutput, outputs.back().get(), std::move(reader));
}

ChildProcess::~ChildProcess() {
    Kill();
}

bool ChildProcess::IsRunning() {
    siginfo_t info = {};
    if (running && waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == pid) {
        Kill();
    }
    return running;
}

void ChildProcess::Signal(int number) const {
    kill(pid, number);
}

void ChildProcess::Kill() {
    if (!running) return;
    running = false;
    // A program that has ended keeps the group's number until it is waited for.
    kill(-pid, SIGKILL);
    wait4(pid, &status, 0, &usage);
    // What is queued is still read, but not what somebody else writes who has the same outputs.
    for (const unique_fd& output : outputs) shutdown(output.get(), SHUT_RD);
    for (std::thread& reader : readers) reader.join();
}

std::string ChildProcess::DescribeEnd(int wait_status) {
    if (WIFSIGNALED(wait_status)) return SignalName(WTERMSIG(wait_status));
    return "exit status " + std::to_string(WEXITSTATUS(wait_status));
}

}  // namespace velmar_sim
