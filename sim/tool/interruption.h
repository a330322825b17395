#pragma once

#include <signal.h>

namespace velmar_sim {

// A signal that is to end this program ends it at once as long as there is nothing to clean up.
// Afterwards what runs is given up by an exception, and the program ends by the signal in the end;
// within some seconds it does so anyhow, whatever blocks it, and at once with a second signal.

// Notes SIGHUP, SIGINT, SIGQUIT, SIGTERM and SIGPIPE from the first call on, but those that are
// ignored. Before something is made that is to be cleaned up. Main thread.
void NoteSignals();

// The signal that came first; 0 when none has come. Any thread.
int NotedSignal();

// Throws std::runtime_error, with the signal's name, when one has come. Any thread.
void ThrowIfInterrupted();

// Puts off signals to this thread while it lives, if wanted. Nothing that may block must be done
// meanwhile.
class SignalDelay {
  public:
    explicit SignalDelay(bool is_wanted = true);
    ~SignalDelay();
    SignalDelay(const SignalDelay&) = delete;
    SignalDelay& operator=(const SignalDelay&) = delete;

  private:
    sigset_t earlier;
};

}  // namespace velmar_sim
