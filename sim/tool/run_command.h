#pragma once

#include "CLI/CLI.hpp"

namespace velmar_sim {

// Adds "velmar_sim run", which plays scenarios one after the other, each on a phone of its own.
// When the command line names it, parsing executes it and puts the exit status into `status`. Main
// thread.
void AddRunCommand(CLI::App* app, int* status);

}  // namespace velmar_sim
