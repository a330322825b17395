#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "android-base/unique_fd.h"

#include "proto/velmar_message.pb.h"
#include "sim/modem/phone_folder.h"
#include "sim/phone/phone_state.h"

namespace velmar_sim {

using Clock = std::chrono::steady_clock;

// The largest message that the phone receives whole, in bytes.
constexpr size_t kMaxMessageForPhone = 65568;

// One message that the service wrote.
struct ReceivedMessage {
    velmar_message::VelmarMessage message;
    std::string bytes;
    // Whether `bytes` are a VelmarMessage; otherwise `message` is empty.
    bool decoded = false;
    // When the modem took it from the channel.
    Clock::time_point time;
};

// How the modem answers requests of the service by itself.
struct AnswerPolicy {
    // A service that sends a request first and prepares for its answer afterwards misses an answer
    // that comes at once; a modem never is that quick.
    static constexpr std::chrono::milliseconds kUsualDelay{50};

    bool answer = true;
    // Outcome in the answer; nothing leaves the field out.
    std::optional<velmar_message::VelmarResult> result = velmar_message::SUCCESS;
    std::chrono::milliseconds delay = kUsualDelay;
    // How many times the same answer is sent.
    int copies = 1;
    // Sends an answer with a token that nobody uses before the right one.
    bool unknown_token_first = false;
};

// A libc call of the service that is made to fail or to come out short: see velmar_phone::Fault.
struct FaultRule {
    std::string call;
    std::string path;
    int error = 0;
    int length = 0;
    int times = 1;
    int skip = 0;
};

// Sees what the modem does, as it does it. Called on the modem's thread and on the threads that
// call the modem, so an observer guards what it keeps. It must not call the modem.
class ModemObserver {
  public:
    virtual ~ModemObserver() = default;
    // Before `bytes` go to the service.
    virtual void OnSent(const std::string& bytes) = 0;
    // Before the message can be taken by Receive.
    virtual void OnReceived(const ReceivedMessage& message) = 0;
    // Anything else worth a line: connections, states, answers that could not be sent.
    virtual void OnEvent(const std::string& text) = 0;
};

// The modem's side of both devices of a simulated phone, and the thermal driver that the modem's
// readings are meant for. It exists before the service starts.
// Operations may be called from any thread; those that fail throw std::runtime_error with a text
// that says what could not be done and why.
class SimulatedModem {
  public:
    // Begins to serve the devices of `folder`. `observer` may be null and must outlive the modem.
    explicit SimulatedModem(const PhoneFolder& folder, ModemObserver* observer = nullptr);
    ~SimulatedModem();
    SimulatedModem(const SimulatedModem&) = delete;
    SimulatedModem& operator=(const SimulatedModem&) = delete;

    // Changes the boot state and wakes whoever has the boot device open `wakes` times: 0 is an
    // event that is lost, 2 one that comes twice.
    void SetState(int state, int wakes = 1);

    // Waits until the service has opened the channel; false when it has not after `timeout`.
    bool WaitForChannel(std::chrono::milliseconds timeout);

    // Sends one message to the newest opener of the channel. Fails when nobody has it open, when
    // the message is larger than the channel holds, and when the channel stays full for 5 s.
    void Send(const velmar_message::VelmarMessage& message);

    // The same with any bytes, at least one.
    void SendBytes(const std::string& bytes);

    // Makes one read of the service come out as end of file. The connection counts as finished:
    // the next message needs, and WaitForChannel awaits, a service that opened the channel again.
    void SendEndOfFile();

    // Closes the channel from the modem's side.
    void HangUp();

    // A modem that does not read leaves what the service writes in the channel, which fills up.
    void SetReading(bool reads);

    // The oldest message that was not taken yet; nothing when none comes within `timeout`.
    std::optional<ReceivedMessage> Receive(std::chrono::milliseconds timeout);

    // Sets how requests with this payload are answered from now on; PAYLOAD_NOT_SET sets it for
    // every payload. Without any policy no request is answered.
    void SetAnswerPolicy(const AnswerPolicy& policy,
                         velmar_message::VelmarMessage::PayloadCase payload =
                                 velmar_message::VelmarMessage::PAYLOAD_NOT_SET);

    // Takes what was written to the thermal node and not taken before, each write by itself, oldest
    // first. A write that has returned is among it.
    std::vector<std::string> TakeThermalWrites();

    // Makes calls of the phone's programs fail. At most velmar_phone::kMaxFaults at a time.
    void AddFault(const FaultRule& rule);
    void ClearFaults();

    // How many calls the faults have still to hit.
    int FaultsLeft() const;

  private:
    struct Connection {
        explicit Connection(int descriptor) : fd(descriptor) {}
        android::base::unique_fd fd;
        // An end of file was sent over it.
        bool finished = false;
    };
    using ConnectionPtr = std::shared_ptr<Connection>;

    // One device: the socket that waits for openers, and those who have it open, oldest first.
    struct Device {
        android::base::unique_fd listener;
        std::vector<ConnectionPtr> connections;
        std::string name;
    };

    struct Opener {
        Device* device;
        ConnectionPtr connection;
    };

    struct StateUnmapper {
        void operator()(velmar_phone::PhoneState* mapped) const;
    };

    static Device Listen(const PhoneFolder& folder, const char* path);

    void Run();
    void Wake() const;
    void Notice(const std::string& text) const;
    void AcceptOpeners(Device* device);
    void Drop(Device* device, const ConnectionPtr& connection);
    void ReceiveFrom(const ConnectionPtr& connection, short events);
    void ReadThermalWrites();
    bool ReadToEnd(const ConnectionPtr& writer);
    void PlanAnswers(const velmar_message::VelmarMessage& request);
    void SendDueAnswers();
    int UntilNextAnswer() const;
    ConnectionPtr NewestOpen();
    ConnectionPtr OpenChannel();
    void Transmit(const ConnectionPtr& connection, const std::string& bytes) const;

    ModemObserver* const observer;
    std::unique_ptr<velmar_phone::PhoneState, StateUnmapper> state;
    android::base::unique_fd wake_fd;
    // Of the modem's thread alone.
    std::string receive_buffer;
    std::multimap<Clock::time_point, std::string> planned_answers;

    // Guards what stands below it.
    std::mutex lock;
    std::condition_variable changed;
    Device channel;
    Device boot;
    Device thermal;
    std::vector<std::string> thermal_writes;
    std::deque<ReceivedMessage> received;
    std::map<int, AnswerPolicy> policies;
    bool reading = true;
    bool stopping = false;

    std::thread thread;
};

}  // namespace velmar_sim
