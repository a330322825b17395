#include "sim/tool/interruption.h"

#include <signal.h>

#include <atomic>
#include <stdexcept>

#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

std::atomic<int> noted_signal{0};

void Note(int number) {
    int none = 0;
    noted_signal.compare_exchange_strong(none, number);
}

}  // namespace

void NoteSignals() {
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

}  // namespace velmar_sim
