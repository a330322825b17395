#include "main/signal_handler.h"

#include <signal.h>

#include "message/velmar_message_handler.h"

// The request is built, written and waited for here, none of which is safe in a signal handler. The
// thread that takes the signal sleeps and holds no lock, which is what makes it work.
void velmar_signal_handler(int signo) {
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
}
