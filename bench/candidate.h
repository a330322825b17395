#pragma once

#include <memory>
#include <string>

#include "android-base/unique_fd.h"

#include "sim/tool/simulation.h"

namespace velmar_bench {

// The modem's end of the channel without anything in between: the thread that measures sends and
// receives by itself. Takes the place of the simulated modem's. Operations throw
// std::runtime_error.
class BareChannel {
  public:
    explicit BareChannel(const velmar_sim::PhoneFolder& folder);

    // Waits until the phone's program opens the channel.
    void Accept();

    // One message to the program. Waits while the channel is full.
    void Send(const std::string& bytes) const;

    // The next message of the program.
    std::string Receive() const;

    // Sends `request` and receives the response, which must be `response`.
    void Exchange(const std::string& request, const std::string& response) const;

  private:
    android::base::unique_fd listener;
    android::base::unique_fd connection;
};

// A program in a simulated phone of its own: the service, or what it is measured against.
// Operations belong to the main thread; they throw std::runtime_error.
class Candidate {
  public:
    // Runs `executable` with the one argument `mode`.
    Candidate(const std::string& executable, std::string mode, int modem_state);

    // Runs the program and, unless it is one that does nothing, exchanges one message with it.
    void Start();
    void StartIdle();
    void Stop() { process.reset(); }

    const BareChannel& channel() const { return bare_channel; }
    const velmar_sim::PhoneFolder& folder() const { return simulation.folder(); }
    pid_t id() const { return process->id(); }

  private:
    velmar_sim::EventStream events;
    velmar_sim::Simulation simulation;
    BareChannel bare_channel;
    const std::string argument;
    std::unique_ptr<velmar_sim::ChildProcess> process;
};

}  // namespace velmar_bench
