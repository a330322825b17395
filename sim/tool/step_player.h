#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "sim/tool/child_process.h"
#include "sim/tool/file_push.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario.pb.h"
#include "sim/tool/simulated_phone.h"
#include "sim/tool/transcript.h"

namespace velmar_sim {

// What a step found is not what it expected. The text says both.
class StepFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Plays the steps of one scenario on one phone. Operations belong to the main thread.
class StepPlayer {
  public:
    // All arguments are borrowed. Waits take `factor` times as long as the scenario says.
    StepPlayer(const Scenario& scenario, double factor, SimulatedPhone* phone,
               Transcript* transcript);

    // Starts the service, if the scenario has one, plays every step and ends the service. Throws
    // StepFailure, and std::runtime_error when the simulator itself could not do a step.
    void Play();

    // Number of the step being played, from 0; the number of steps at the end.
    int step_number() const { return current; }

  private:
    using Milliseconds = std::chrono::milliseconds;

    void PlaySteps();
    void PlayStep(const Step& step);
    void EndService();
    void Send(const Step& step);
    void Expect(const Step& step);
    void ExpectNothing(const Silence& silence);
    void PushFile(const Push& push);
    void SendChunk(const FilePush& file);
    void SetAnswer(const Answer& answer);
    void SendSignal(const std::string& name);
    void RunClient(const Client& client);
    void AwaitExit(const Exit& exit);
    void RequireRunning();
    void StartService();
    void AwaitLog(const LogPattern& pattern);
    void RefuseLog(const LogPattern& pattern);
    void AwaitThermalWrites(const ThermalWrites& expected);
    void InjectFault(const Fault& fault);
    std::optional<RadioRequest> ReceiveRadioRequest(Milliseconds limit);
    void ExpectRadioRequest(const RadioRequest& expected);
    void RefuseRadioRequest(const Silence& silence);

    std::string NoMessage(const velmar_message::VelmarMessage& expected) const;
    Milliseconds Scaled(uint32_t ms) const;
    void AwaitChannel();
    bool WaitFor(Milliseconds limit, const std::function<bool(Milliseconds)>& attempt);
    std::optional<ReceivedMessage> Receive(Milliseconds limit);
    std::optional<size_t> FindLog(const LogPattern& pattern, Milliseconds limit);
    bool AwaitEnd(ChildProcess* program);
    void AwaitRight(const std::function<std::string()>& find_difference);
    void CheckService();
    bool ExitFollows() const;

    const Scenario& story;
    const double time_factor;
    SimulatedPhone* const phone;
    Transcript* const show;
    std::unique_ptr<ChildProcess> service;
    // The service runs and nothing has said that it ends.
    bool service_expected = false;
    // Of the step being played.
    Milliseconds within{0};
    int current = 0;
    // Log lines before this one are done with.
    size_t log_position = 0;
};

}  // namespace velmar_sim
