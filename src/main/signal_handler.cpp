#include "main/signal_handler.h"

#include <errno.h>
#include <signal.h>

#include "handler/velmar_message_handler.h"

namespace {

constexpr int kRequestSignals[] = {SIGUSR1, SIGUSR2};

sigset_t RequestSignalSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int signo : kRequestSignals) sigaddset(&set, signo);
    return set;
}

}  // namespace

// The request is built, written and waited for here, none of which is safe in a signal handler. It
// works since the handler interrupts nothing but the main thread's sleep: no lock is held there, no
// other thread takes the signal, and no second signal is handled before this returns.
void velmar_signal_handler(int signo) {
    int saved_errno = errno;
    switch (signo) {
        case SIGUSR1:
            VelmarMessageHandler::GetInstance()->SendServiceRequest(kCommandModemStatReport);
            break;
        case SIGUSR2:
            VelmarMessageHandler::GetInstance()->SendServiceRequest(kCommandExtendedLog);
            break;
        default:
            break;
    }
    errno = saved_errno;
}

void velmar_block_signals() {
    sigset_t set = RequestSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void velmar_unblock_signals() {
    sigset_t set = RequestSignalSet();
    // signal() blocks only the signal that is being handled.
    for (int signo : kRequestSignals) {
        struct sigaction action;
        sigaction(signo, nullptr, &action);
        action.sa_mask = set;
        sigaction(signo, &action, nullptr);
    }
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}
