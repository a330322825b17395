#pragma once

namespace velmar_sim {

// A signal that is to end this program lets it clean up first: what runs is given up by an
// exception, and the program ends by the signal in the end. A second signal ends it at once.

// Notes SIGHUP, SIGINT, SIGQUIT, SIGTERM and SIGPIPE from now on, but those that are ignored. Main
// thread, once.
void NoteSignals();

// The signal that came first; 0 when none has come. Any thread.
int NotedSignal();

// Throws std::runtime_error, with the signal's name, when one has come. Any thread.
void ThrowIfInterrupted();

}  // namespace velmar_sim
