#include "sim/tool/janitor.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "sim/modem/errors.h"
#include "sim/modem/phone_folder.h"
#include "sim/phone/phone_state.h"

namespace velmar_sim {

namespace {

using android::base::unique_fd;

constexpr std::chrono::milliseconds kDeathPoll{5};
constexpr std::chrono::seconds kDeathLimit{5};

std::pair<unique_fd, unique_fd> MakePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) ThrowErrno("pipe2");
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

std::string ReadAll(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// The processes that run in the phone. The folder's name in the environment tells them without any
// book-keeping that could be behind when this program is killed; a number alone might be another's.
std::vector<pid_t> ProcessesOf(const std::string& folder) {
    // Both an entry's name before it and its end after it belong to the match.
    const std::string entry = std::string(velmar_phone::kRootVariable) + "=" + folder + '\0';
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& process : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = process.path().filename();
        if (!std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            continue;
        }
        if (ReadAll(process.path() / "environ").find(entry) != std::string::npos) {
            found.push_back(static_cast<pid_t>(std::stol(name)));
        }
    }
    return found;
}

void KillProcessesOf(const std::string& folder) {
    const auto limit = std::chrono::steady_clock::now() + kDeathLimit;
    for (auto left = ProcessesOf(folder); !left.empty(); left = ProcessesOf(folder)) {
        if (std::chrono::steady_clock::now() > limit) {
            throw std::runtime_error("process " + std::to_string(left.front()) + " does not end");
        }
        for (const pid_t process : left) kill(process, SIGKILL);
        std::this_thread::sleep_for(kDeathPoll);
    }
}

// The janitor's process. `name_sink` takes the folder's path, `life` ends with the program.
void WorkAsJanitor(const unique_fd& life, unique_fd name_sink, bool keep_folder) {
    // Away from the terminal, whose signals are for the program.
    setsid();
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        static_cast<void>(signal(number, SIG_IGN));
    }
    const unique_fd nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
    dup2(nowhere.get(), STDIN_FILENO);
    dup2(nowhere.get(), STDOUT_FILENO);

    const std::string folder = PhoneFolder::MakeFresh();
    [[maybe_unused]] const ssize_t told = write(name_sink.get(), folder.data(), folder.size());
    name_sink.reset();
    char byte = 0;
    while (read(life.get(), &byte, 1) < 0 && errno == EINTR) {
    }
    KillProcessesOf(folder);
    if (!keep_folder) std::filesystem::remove_all(folder);
}

int RunJanitor(const unique_fd& life, unique_fd name_sink, bool keep_folder) {
    try {
        WorkAsJanitor(life, std::move(name_sink), keep_folder);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "velmar_sim: cannot clean up: " << error.what() << "\n";
        return 1;
    }
}

}  // namespace

Janitor::Janitor(bool keep_folder) {
    auto [life, life_end] = MakePipe();
    auto [name_source, name_sink] = MakePipe();
    pid = fork();
    if (pid < 0) ThrowErrno("fork");
    if (pid == 0) {
        life_end.reset();
        _exit(RunJanitor(life, std::move(name_sink), keep_folder));
    }
    name_sink.reset();
    life_line = std::move(life_end);
    char buffer[4096];
    while (true) {
        const ssize_t size = read(name_source.get(), buffer, sizeof(buffer));
        if (size <= 0) break;
        folder_path.append(buffer, static_cast<size_t>(size));
    }
    if (folder_path.empty()) {
        waitpid(pid, nullptr, 0);
        throw std::runtime_error("no folder for the phone could be made");
    }
}

Janitor::~Janitor() {
    life_line.reset();
    waitpid(pid, nullptr, 0);
}

}  // namespace velmar_sim
