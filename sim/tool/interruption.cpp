#include "sim/tool/interruption.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <utility>

#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

constexpr unsigned int kSecondsToCleanUp = 2;

std::atomic<int> noted_signal{0};
volatile sig_atomic_t is_output_given_up = 0;

void Note(int number) {
    int none = 0;
    noted_signal.compare_exchange_strong(none, number);
    alarm(kSecondsToCleanUp);
}

// Something has blocked for long: most likely somebody does not read what is written, so that goes
// elsewhere. The second time this program ends.
void GiveUp(int) {
    if (is_output_given_up != 0) {
        static_cast<void>(signal(noted_signal, SIG_DFL));
        static_cast<void>(raise(noted_signal));
    }
    is_output_given_up = 1;
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    alarm(kSecondsToCleanUp);
}

}  // namespace

void NoteSignals() {
    static bool are_noted = false;
    if (std::exchange(are_noted, true)) return;
    static_cast<void>(signal(SIGALRM, GiveUp));
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
        action.sa_handler = Note;
        // Each line that is written into a broken pipe raises another one.
        action.sa_flags = SA_RESTART;
        if (number != SIGPIPE) action.sa_flags |= SA_RESETHAND;
        sigaction(number, &action, nullptr);
    }
}

int NotedSignal() {
    return noted_signal;
}

void ThrowIfInterrupted() {
    if (NotedSignal() != 0) throw std::runtime_error("interrupted by " + SignalName(noted_signal));
}

SignalDelay::SignalDelay(bool is_wanted) {
    sigset_t delayed;
    static_cast<void>(is_wanted ? sigfillset(&delayed) : sigemptyset(&delayed));
    pthread_sigmask(SIG_BLOCK, &delayed, &earlier);
}

SignalDelay::~SignalDelay() {
    pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

}  // namespace velmar_sim
