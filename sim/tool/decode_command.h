#pragma once

#include "CLI/CLI.hpp"

namespace velmar_sim {

// Adds "velmar_sim decode", which shows a trace as the command that recorded it did, or records it
// in another form. When the command line names it, parsing executes it and puts the exit status
// into `status`. Main thread.
void AddDecodeCommand(CLI::App* app, int* status);

}  // namespace velmar_sim
