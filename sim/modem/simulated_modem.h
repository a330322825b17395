#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "android-base/unique_fd.h"

#include "proto/velmar_message.pb.h"
#include "sim/modem/event.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/response_policy.pb.h"

namespace velmar_sim {

// The largest message that the phone receives whole, in bytes.
constexpr size_t kMaxMessageForPhone = 65568;
// The largest that the modem can send, in bytes; the phone cuts it.
constexpr size_t kMaxMessageOfModem = size_t{128} << 10;

// One message that the service wrote.
struct ReceivedMessage {
    velmar_message::VelmarMessage message;
    std::string bytes;
    // Whether `bytes` are a VelmarMessage; otherwise `message` is empty.
    bool decoded = false;
};

// The modem's side of the channel and of the boot device of a simulated phone. It exists before the
// service starts.
//
// What the modem sends belongs to the channel, not to one of those who have it open: it goes to the
// one who opened the channel first, waits while nobody has it open, and what somebody has not read
// before closing the channel goes to the next one. A message that is read in the moment in which
// its reader is killed may come a second time.
//
// Operations may be called from any thread; those that fail throw std::runtime_error with a text
// that says what could not be done and why.
class SimulatedModem {
  public:
    // Begins to serve the devices of `folder`. `events` is borrowed.
    explicit SimulatedModem(const PhoneFolder& folder, EventStream* events = &NoWriters());
    ~SimulatedModem();
    SimulatedModem(const SimulatedModem&) = delete;
    SimulatedModem& operator=(const SimulatedModem&) = delete;

    // Changes the boot state and wakes whoever has the boot device open `wakes` times: 0 is an
    // event that is lost, 2 one that comes twice.
    void SetState(int state, int wakes = 1);

    // Waits until the service has opened the channel; false when it has not after `timeout`.
    bool WaitForChannel(std::chrono::milliseconds timeout);

    // Sends one message. Fails when it has more than 128 KiB, and when the channel has been full
    // for 5 s; then it waits in the channel all the same.
    void Send(const velmar_message::VelmarMessage& message);

    // The same with any bytes, at least one.
    void SendBytes(const std::string& bytes);

    // Makes one read of the service come out as end of file, once it has read all messages. The
    // connection counts as finished: WaitForChannel awaits a service that has opened the channel
    // again.
    void SendEndOfFile();

    // Closes the channel from the modem's side.
    void HangUp();

    // A modem that does not read leaves what the service writes in the channel, which fills up.
    void SetReading(bool reads);

    // The oldest message that was not taken yet; nothing when none comes within `timeout`.
    std::optional<ReceivedMessage> Receive(std::chrono::milliseconds timeout);

    // Sets how the modem responds from now on to requests with the policy's payload; a policy for
    // all replaces those for one. Without any policy it does not respond.
    void SetResponsePolicy(const ResponsePolicy& policy);

  private:
    struct Connection {
        android::base::unique_fd fd;
        // An end of file was sent over it, or the modem has hung up.
        bool finished = false;
        bool hung_up = false;
        int looks = 0;
    };

    // One device: the socket that waits for openers, and those who have it open, oldest first. Only
    // the modem's thread drops one.
    struct Device {
        std::string name;
        android::base::unique_fd listener;
        std::list<Connection> connections;
    };
    using Opener = std::list<Connection>::iterator;

    void Run();
    short AwaitedEvents(const Device* device, Opener opener);
    void Wake() const;
    void AcceptOpeners(Device* device);
    void Drop(Device* device, Opener connection);
    bool DropHungUp();
    void Enqueue(const std::string& bytes);
    void ForgetReadMessages();
    void HandOverMessages();
    bool ReceiveFrom(const Connection& connection, short happened);
    void PlanResponses(const velmar_message::VelmarMessage& request);
    void SendDueResponses();
    int UntilNextResponse() const;

    EventStream* const events;
    const std::shared_ptr<velmar_phone::PhoneState> state;
    const android::base::unique_fd wake_fd;
    // Of the modem's thread alone.
    std::string receive_buffer;
    std::multimap<Clock::time_point, std::string> planned_responses;

    // Guards what stands below it.
    std::mutex lock;
    std::condition_variable changed;
    Device channel;
    Device boot;
    // What was sent and not read yet, oldest first; an end of file is empty. So many of them are in
    // the socket of the channel's first connection; the phone counts those that were read.
    std::deque<std::string> unread;
    size_t handed_over = 0;
    uint32_t reads_seen = 0;
    std::deque<ReceivedMessage> received;
    // By payload.
    std::map<std::string, ResponsePolicy> policies;
    bool reading = true;
    bool stopping = false;

    std::thread thread;
};

}  // namespace velmar_sim
