#pragma once

namespace velmar_sim {

// Exit statuses of velmar_sim.
constexpr int kPassed = 0;
constexpr int kFailed = 1;
constexpr int kBadInput = 2;

// One command of velmar_sim: it declares its options when it is made, and is executed when the
// command line names it. Main thread.
class Command {
  public:
    virtual ~Command() = default;

    // Whether the command line names this command.
    virtual bool IsChosen() const = 0;

    // Does the work; gives the exit status.
    virtual int Execute() = 0;
};

}  // namespace velmar_sim
