#pragma once

#include "CLI/CLI.hpp"

namespace velmar_sim {

// Adds "velmar_sim preview", which shows what the real service sends for each line of a
// configuration. When the command line names it, parsing executes it and puts the exit status into
// `status`. Main thread.
void AddPreviewCommand(CLI::App* app, int* status);

}  // namespace velmar_sim
