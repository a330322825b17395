#pragma once

// Asks the modem for what signal `signo` stands for: SIGUSR1 a modem statistics report, SIGUSR2 the
// extended logs; any other nothing. Waits for the modem's response before it returns. Installed
// with signal(). In the server it runs on the main thread only, while that sleeps.
void velmar_signal_handler(int signo);

// Blocks SIGUSR1 and SIGUSR2 for the calling thread and for every thread that it creates from now
// on, and has the kernel block both while the handler of one of them runs. Called by the main
// thread, after the handler was installed and before any other thread exists.
void velmar_block_signals();

// Lets SIGUSR1 and SIGUSR2 through to the calling thread; one that came meanwhile is handled before
// this returns. Called by the main thread, which holds no lock and only sleeps from then on.
void velmar_unblock_signals();
