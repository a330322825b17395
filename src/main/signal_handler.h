#pragma once

// Asks the modem for what signal `signo` stands for: SIGUSR1 a modem statistics report, SIGUSR2 the
// extended logs; any other nothing. Returns when the request has had its response or its time-out.
// Installed with signal(). In the server it runs on the main thread only, while that sleeps.
void velmar_signal_handler(int signo);

// Blocks SIGUSR1 and SIGUSR2 for the calling thread and for every thread that it creates from now
// on. Called by the main thread, before any other thread exists.
void velmar_block_signals();

// Has the kernel block both signals while the handler of one of them runs, and lets them through to
// the calling thread; one that came meanwhile is handled before this returns. Called by the main
// thread, which has installed the handlers, holds no lock and only sleeps from then on.
void velmar_unblock_signals();
