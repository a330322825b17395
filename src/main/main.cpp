#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include "base/log.h"
#include "handler/velmar_message_handler.h"
#include "main/command_line.h"
#include "main/pid_file.h"
#include "main/signal_handler.h"

namespace {

// Sends `signo` to the running server, saying so with `line`. Returns false, with a log line, when
// no server is recorded. Whether the process exists is not looked at.
bool SignalServer(int signo, const char* line) {
    pid_t pid = velmar_get_pid();
    if (pid < 1) {
        ALOGE("Failed to get pid");
        return false;
    }
    ALOGI("%s", line);
    kill(pid, signo);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) {
        PrintUsage(argv[0]);
        return -1;
    }
    ModeFlags flags = ParseCommandLine(argc, argv);
    // Blocks both signals before any thread exists: threads inherit the mask, so main alone handles
    // them, once it sleeps.
    if (flags.server) velmar_block_signals();
    (void)signal(SIGUSR1, velmar_signal_handler);
    (void)signal(SIGUSR2, velmar_signal_handler);
    if (flags.modem_stat && !SignalServer(SIGUSR1, "Send signal for modemstat request")) {
        return -1;
    }
    if (flags.extended_log && !SignalServer(SIGUSR2, "Send signal for extendedlog request")) {
        return -1;
    }
    if (!flags.server) {
        // Deliberately an error line, though it ends every client run.
        ALOGE("Force to exit");
        return 0;
    }
    VelmarMessageHandler* handler = VelmarMessageHandler::GetInstance();
    if (handler->Start() != kStatusSuccess) {
        ALOGE("Failed to start message handler");
        return -1;
    }
    velmar_write_pid();
    // Until the boot device is open, every request would find the modem offline.
    handler->WaitForBootDevice();
    velmar_unblock_signals();
    while (true) sleep(UINT_MAX);
}
