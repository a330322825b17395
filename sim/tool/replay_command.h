#pragma once

#include "CLI/CLI.hpp"

namespace velmar_sim {

// Adds "velmar_sim replay", which plays the modem's side of a trace again and compares what the
// service sends. When the command line names it, parsing executes it and puts the exit status into
// `status`. Main thread.
void AddReplayCommand(CLI::App* app, int* status);

}  // namespace velmar_sim
