#pragma once

#include "CLI/CLI.hpp"

namespace velmar_sim {

// Adds the command "shell", which boots a phone and plays steps that are typed line by line. It
// puts its exit status into `status`, which is borrowed, and throws BadInput for bad options. Main
// thread.
void AddShellCommand(CLI::App* app, int* status);

}  // namespace velmar_sim
