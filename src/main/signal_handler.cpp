#include "main/signal_handler.h"

#include <errno.h>
#include <signal.h>

#include "handler/velmar_message_handler.h"

// The request is built, written and waited for here, none of which is safe in a signal handler. It
// works since as a rule the main thread takes the signal, which sleeps and holds no lock.
void velmar_signal_handler(int signo) {
    // A thread that retries a read or a write looks at it next.
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
