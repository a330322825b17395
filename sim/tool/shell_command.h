#pragma once

#include "CLI/CLI.hpp"

namespace velmar_sim {

// Adds "velmar_sim shell", which boots a phone and plays steps that are typed line by line. When
// the command line names it, parsing executes it and puts the exit status into `status`. Main
// thread.
void AddShellCommand(CLI::App* app, int* status);

}  // namespace velmar_sim
