#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "android-base/unique_fd.h"

#include "bench/service_phone.h"

namespace velmar_bench {

// The modem's end of the channel without anything in between: the thread that measures sends and
// receives by itself. Takes the place of the simulated modem's.
class BareChannel {
  public:
    // Throws std::runtime_error.
    explicit BareChannel(const velmar_sim::PhoneFolder& folder);

    // Waits until the phone's program opens the channel. Throws std::runtime_error.
    void Accept();

    // One message to the program. Waits while the channel is full. Throws std::runtime_error.
    void Send(const std::string& bytes) const;

    // The next message of the program. Throws std::runtime_error when none comes.
    std::string Receive() const;

  private:
    android::base::unique_fd listener;
    android::base::unique_fd connection;
};

// A program in a phone of its own: the service, or what it is measured against.
class Contender {
  public:
    // What is run: an executable with one argument.
    struct Program {
        std::string executable;
        std::string argument;
    };

    // The phone lies in `folder`. Throws std::runtime_error, as all operations do.
    Contender(const std::string& folder, Program what, int modem_state);

    // Runs the program and, unless it is one that does nothing, exchanges one message with it.
    void Start();
    void StartIdle();
    void Stop() { process.reset(); }

    // Sends `request` and receives its answer, which must be `answer`.
    void Exchange(const std::string& request, const std::string& answer) const;

    const BareChannel& channel() const { return bare_channel; }
    const velmar_sim::PhoneFolder& folder() const { return phone.folder(); }
    ProcessFigures Figures() const { return FiguresOf(process->id()); }
    std::chrono::nanoseconds ProcessorTime() const { return ProcessorTimeOf(process->id()); }

  private:
    ServicePhone phone;
    BareChannel bare_channel;
    const Program program;
    std::unique_ptr<velmar_sim::ChildProcess> process;
};

}  // namespace velmar_bench
