#pragma once

#include <string>
#include <vector>

#include "CLI/CLI.hpp"

#include "sim/tool/command.h"
#include "sim/tool/scenario_reader.h"

namespace velmar_sim {

// "velmar_sim run": plays scenarios one after the other, each on a phone of its own.
class RunCommand : public Command {
  public:
    explicit RunCommand(CLI::App* app);

    bool IsChosen() const override { return subcommand->parsed(); }
    int Execute() override;

  private:
    bool PlayScenario(const ScenarioFile& file);
    std::string FindFailure(const ScenarioFile& file) const;

    CLI::App* subcommand;
    std::vector<std::string> paths;
    std::string velmar;
    bool keep = false;
    bool quiet = false;
    double time_factor = 1;
    int steps_played = 0;
};

}  // namespace velmar_sim
