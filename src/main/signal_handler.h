#pragma once

// Asks the modem for what signal `signo` stands for: SIGUSR1 a modem statistics report, SIGUSR2 the
// extended logs; any other nothing. Waits for the modem's answer before it returns. Installed with
// signal(); runs on the thread that takes the signal, as a rule the main thread, which sleeps.
void velmar_signal_handler(int signo);
