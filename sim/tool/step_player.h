#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/tool/child_process.h"
#include "sim/tool/file_push.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario.pb.h"
#include "sim/tool/simulation.h"

namespace velmar_sim {

// What a step found is not what it expected. The text says both.
class StepFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The service has ended, and no step awaited that.
class UnexpectedEnd : public StepFailure {
  public:
    // `wait_status` is what wait gives.
    explicit UnexpectedEnd(int wait_status);

    // What a step says that awaits this end.
    const Exit& end() const { return exit; }

  private:
    Exit exit;
};

// For each of `count` steps, whether it or a later one awaits the end of the service that was
// started last; false for the time after them, which has the last element. `action` says what the
// step of a number does.
std::vector<bool> AwaitedEnds(size_t count, const std::function<Step::ActionCase(size_t)>& action);

// Plays steps on one phone, one after the other; the service ends with the player. Operations
// belong to the main thread; they throw StepFailure, and std::runtime_error when the simulator
// itself could not do something.
class StepPlayer {
  public:
    // `phone`, which the simulation has at boot, and the others are borrowed. Waits take `factor`
    // times as long as the steps say.
    StepPlayer(const Phone& phone, double factor, Simulation* simulation, EventStream* events);

    // Starts the service, if the phone has one, and waits until it has written its number into its
    // pid file or has ended, at most as long as a step may take that does not say. Before the first
    // step.
    void Start();

    // Plays one step. An end of the service is a failure unless `is_end_awaited`.
    void Play(const Step& step, bool is_end_awaited);

    // Shows what has happened between two steps. Throws UnexpectedEnd, once for each end.
    void Look();

    // Waits until nothing has happened for 300 ms times the factor, at most as long as a step may
    // take that does not say.
    void AwaitQuiet();

    // Ends the service and looks for reports of sanitizers and for faults that hit nothing. After
    // the last step.
    void Finish();

  private:
    using Milliseconds = std::chrono::milliseconds;

    void PlayAction(const Step& step);
    void Send(const std::string& bytes);
    void ExpectNoMessage(const Silence& silence);
    void PushFile(const Push& push);
    void SendFurtherChunks(FilePush* file);
    void SendChunk(const FilePush& file);
    void SetResponse(ResponsePolicy policy);
    void SendSignal(const std::string& name);
    void RunClient(const Client& client);
    void AwaitExit(const Exit& exit);
    void RequireRunning();
    void StartService();
    void AwaitLog(const LogPattern& pattern);
    void ExpectNoLog(const LogPattern& pattern);
    void AwaitThermalWrites(const ThermalWrites& expected);
    void InjectFault(const Fault& fault);
    void ExpectRadioRequest(const RadioRequest& expected);
    void ExpectNoRadioRequest(const Silence& silence);
    void ExpectMessage(const velmar_message::VelmarMessage& expected, bool any_token,
                       const std::string& place);

    std::string WithinText() const;
    Milliseconds Scaled(uint32_t ms) const;
    void WithChannel(const std::function<void()>& action);
    void Pause(Milliseconds time);
    bool WaitUntil(Milliseconds limit, const std::function<bool()>& holds);
    void WaitUntilEqual(const std::function<std::string()>& find_difference);
    std::optional<size_t> FindLog(const LogPattern& pattern, Milliseconds limit);
    void AwaitEnd(const std::string& name, ChildProcess* program, const std::string& expected);
    void CheckService();

    const Phone& phone;
    const double time_factor;
    Simulation* const simulation;
    EventStream* const events;
    std::unique_ptr<ChildProcess> service;
    // The service runs, and its end would be a failure unless the step awaits it.
    bool service_expected = false;
    bool end_awaited = false;
    // Of the step being played.
    Milliseconds within;
    // The step played last has sent a message.
    bool has_sent = false;
    // Log lines before this one are done with.
    size_t log_position = 0;
};

}  // namespace velmar_sim
