#include "sim/modem/simulated_modem.h"

#include <errno.h>
#include <linux/sockios.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "sim/modem/device_socket.h"
#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

using std::chrono::milliseconds;
using velmar_message::VelmarMessage;

// More than any message of either side; the kernel bounds both to the socket's send buffer.
constexpr size_t kReceiveBufferSize = size_t{1} << 20;
// Asked for; the kernel grants what its limit allows, and always room for the largest message.
constexpr int kSendBufferSize = 1 << 20;
constexpr std::chrono::seconds kSendTimeout{5};
// Between two looks at a connection that tells no one of its change.
constexpr int kPollMilliseconds = 2;
// How many looks a message that left the socket has until it counts as lost with its reader: the
// phone counts it a moment after it was read.
constexpr int kMaxLooks = 50;
constexpr int kOn = 1;
constexpr uint32_t kUnknownTokenBit = 0x80000000;

// Whether all that was sent over the socket was read, or went with its reader.
bool IsDrained(int fd) {
    int unread = 0;
    return ioctl(fd, SIOCOUTQ, &unread) != 0 || unread == 0;
}

// As recv(2) without waiting; `sent` becomes the time at which the packet was written.
ssize_t ReceivePacket(int fd, std::string* buffer, Clock::time_point* sent) {
    iovec part = {buffer->data(), buffer->size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))];
    msghdr packet = {};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    packet.msg_control = control;
    packet.msg_controllen = sizeof(control);
    const ssize_t size = recvmsg(fd, &packet, MSG_DONTWAIT);
    const cmsghdr* stamp = size > 0 ? CMSG_FIRSTHDR(&packet) : nullptr;
    if (stamp == nullptr || stamp->cmsg_type != SO_TIMESTAMP) return size;
    timeval moment = {};
    memcpy(&moment, CMSG_DATA(stamp), sizeof(moment));
    *sent = FromWallClock(std::chrono::seconds(moment.tv_sec) +
                          std::chrono::microseconds(moment.tv_usec));
    return size;
}

}  // namespace

SimulatedModem::SimulatedModem(const PhoneFolder& folder, EventStream* event_stream)
    : events(event_stream),
      state(folder.MapState()),
      wake_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      receive_buffer(kReceiveBufferSize, '\0'),
      channel{velmar_phone::kChannelDevice,
              ListenAt(folder.HostPath(velmar_phone::kChannelDevice)),
              {}},
      boot{velmar_phone::kBootDevice, ListenAt(folder.HostPath(velmar_phone::kBootDevice)), {}},
      reads_seen(state->channel_reads.load(std::memory_order_acquire)) {
    if (wake_fd < 0) ThrowErrno("eventfd");
    thread = std::thread(&SimulatedModem::Run, this);
}

SimulatedModem::~SimulatedModem() {
    {
        const std::lock_guard<std::mutex> guard(lock);
        stopping = true;
    }
    Wake();
    thread.join();
}

void SimulatedModem::Wake() const {
    // A counter that is full wakes as well, so the result does not matter.
    eventfd_write(wake_fd.get(), 1);
}

// Called with the lock held.
void SimulatedModem::AcceptOpeners(Device* device) {
    while (true) {
        Connection connection;
        connection.fd.reset(accept4(device->listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.fd < 0) return;
        setsockopt(connection.fd.get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferSize,
                   sizeof(kSendBufferSize));
        setsockopt(connection.fd.get(), SOL_SOCKET, SO_TIMESTAMP, &kOn, sizeof(kOn));
        device->connections.push_back(std::move(connection));
        events->Emit({Event::Kind::kOpened, device->name});
        changed.notify_all();
        Wake();
    }
}

// Called with the lock held, by the modem's thread.
void SimulatedModem::Drop(Device* device, Opener connection) {
    if (!connection->hung_up) events->Emit({Event::Kind::kClosed, device->name});
    if (device == &channel && connection == channel.connections.begin()) {
        ForgetReadMessages();
        handed_over = 0;
    }
    device->connections.erase(connection);
    changed.notify_all();
}

void SimulatedModem::SetState(int new_state, int wakes) {
    Event event = {Event::Kind::kState, wakes == 1 ? "" : ", events: " + std::to_string(wakes)};
    event.number = new_state;
    events->Emit(event);
    const std::lock_guard<std::mutex> guard(lock);
    // The state comes first: whoever opened the device before this line is woken, and whoever
    // opens it later reads the new state.
    state->boot_state.store(new_state, std::memory_order_release);
    AcceptOpeners(&boot);
    for (const Connection& connection : boot.connections) {
        const char packet = 0;
        // A full socket holds wake-ups enough.
        for (int i = 0; i < wakes; ++i) {
            send(connection.fd.get(), &packet, sizeof(packet), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }
}

bool SimulatedModem::WaitForChannel(milliseconds timeout) {
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, timeout, [this] {
        const auto& all = channel.connections;
        return std::any_of(all.begin(), all.end(), [](const auto& one) { return !one.finished; });
    });
}

void SimulatedModem::Send(const VelmarMessage& message) {
    SendBytes(message.SerializeAsString());
}

void SimulatedModem::SendBytes(const std::string& bytes) {
    if (bytes.empty() || bytes.size() > kMaxMessageOfModem) {
        throw std::runtime_error("a message has 1 to " + std::to_string(kMaxMessageOfModem) +
                                 " bytes, found " + std::to_string(bytes.size()));
    }
    std::unique_lock<std::mutex> guard(lock);
    events->Emit({Event::Kind::kSent, bytes});
    Enqueue(bytes);
    // A channel that is open has to take it; otherwise it waits for the next one who opens it.
    const auto is_over = [this] {
        const auto& readers = channel.connections;
        return handed_over == unread.size() || readers.empty() || readers.front().finished;
    };
    if (changed.wait_for(guard, kSendTimeout, is_over)) return;
    throw std::runtime_error("a message of " + std::to_string(bytes.size()) +
                             " bytes has to wait: the channel is full, for " +
                             std::to_string(kSendTimeout.count()) +
                             " s the service has read nothing");
}

// Called with the lock held.
void SimulatedModem::Enqueue(const std::string& bytes) {
    unread.push_back(bytes);
    AcceptOpeners(&channel);
    HandOverMessages();
    // The thread goes on with it once there is room.
    if (handed_over < unread.size()) Wake();
}

// Called with the lock held.
void SimulatedModem::ForgetReadMessages() {
    const uint32_t reads = state->channel_reads.load(std::memory_order_acquire);
    for (; reads_seen != reads && handed_over > 0; ++reads_seen, --handed_over) unread.pop_front();
    reads_seen = reads;
}

// Puts what waits into the first connection's socket as far as it has room. All that is unread is
// in one socket at a time: only so does the count of reads tell which messages were read. Called
// with the lock held.
void SimulatedModem::HandOverMessages() {
    ForgetReadMessages();
    while (handed_over < unread.size() && !channel.connections.empty()) {
        Connection& reader = channel.connections.front();
        if (reader.finished) return;
        const auto next = unread.begin() + static_cast<std::ptrdiff_t>(handed_over);
        // The thread goes on when there is room; of a connection that was closed it hears too.
        if (send(reader.fd.get(), next->data(), next->size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            return;
        }
        if (next->empty()) {
            // An end of file is not counted.
            reader.finished = true;
            unread.erase(next);
        } else if (++handed_over == unread.size()) {
            changed.notify_all();
        }
    }
}

void SimulatedModem::SendEndOfFile() {
    events->EmitText("end of file on the channel");
    const std::lock_guard<std::mutex> guard(lock);
    Enqueue("");
}

void SimulatedModem::HangUp() {
    events->EmitText("modem hangs up");
    const std::lock_guard<std::mutex> guard(lock);
    AcceptOpeners(&channel);
    for (Connection& connection : channel.connections) {
        shutdown(connection.fd.get(), SHUT_RDWR);
        connection.finished = connection.hung_up = true;
    }
    Wake();
}

void SimulatedModem::SetReading(bool reads) {
    {
        const std::lock_guard<std::mutex> guard(lock);
        reading = reads;
    }
    Wake();
}

std::optional<ReceivedMessage> SimulatedModem::Receive(milliseconds timeout) {
    std::unique_lock<std::mutex> guard(lock);
    if (!changed.wait_for(guard, timeout, [this] { return !received.empty(); })) {
        return std::nullopt;
    }
    ReceivedMessage oldest = std::move(received.front());
    received.pop_front();
    return oldest;
}

void SimulatedModem::SetResponsePolicy(const ResponsePolicy& policy) {
    const std::lock_guard<std::mutex> guard(lock);
    if (policy.payload().empty()) policies.clear();
    policies[policy.payload()] = policy;
}

void SimulatedModem::Run() {
    while (true) {
        std::vector<pollfd> polled = {{wake_fd.get(), POLLIN, 0},
                                      {channel.listener.get(), POLLIN, 0},
                                      {boot.listener.get(), POLLIN, 0}};
        const size_t first_opener = polled.size();
        std::vector<std::pair<Device*, Opener>> openers;
        int timeout = UntilNextResponse();
        {
            const std::lock_guard<std::mutex> guard(lock);
            if (stopping) return;
            AcceptOpeners(&channel);
            AcceptOpeners(&boot);
            if (!DropHungUp()) timeout = kPollMilliseconds;
            HandOverMessages();
            for (Device* device : {&channel, &boot}) {
                auto& all = device->connections;
                for (Opener opener = all.begin(); opener != all.end(); ++opener) {
                    if (opener->hung_up) continue;
                    openers.emplace_back(device, opener);
                    polled.push_back({opener->fd.get(), AwaitedEvents(device, opener), 0});
                }
            }
        }
        poll(polled.data(), polled.size(), timeout);
        eventfd_t wakes = 0;
        eventfd_read(wake_fd.get(), &wakes);
        for (size_t i = 0; i < openers.size(); ++i) {
            const short happened = polled[first_opener + i].revents;
            if (happened == 0) continue;
            const auto& [device, opener] = openers[i];
            if (device == &boot || !ReceiveFrom(*opener, happened)) {
                const std::lock_guard<std::mutex> guard(lock);
                // One that the modem has hung up meanwhile still has messages to be read.
                if (!opener->hung_up) Drop(device, opener);
            }
        }
        SendDueResponses();
    }
}

// Called with the lock held.
short SimulatedModem::AwaitedEvents(const Device* device, Opener opener) {
    short awaited = POLLRDHUP;
    if (device == &boot) return awaited;
    if (reading) awaited |= POLLIN;
    const bool is_next_reader = opener == channel.connections.begin() && !opener->finished;
    if (is_next_reader && handed_over < unread.size()) awaited |= POLLOUT;
    return awaited;
}

// Drops connections after a hang-up as soon as it is known what of their messages was read, which
// no event tells; returns whether none is left. Called with the lock held.
bool SimulatedModem::DropHungUp() {
    auto& all = channel.connections;
    for (Opener next = all.begin(); next != all.end();) {
        const Opener opener = next++;
        if (!opener->hung_up || !IsDrained(opener->fd.get())) continue;
        ForgetReadMessages();
        const bool is_all_read = handed_over == 0 || opener != all.begin();
        if (is_all_read || ++opener->looks > kMaxLooks) Drop(&channel, opener);
    }
    return std::none_of(all.begin(), all.end(), [](const Connection& one) { return one.hung_up; });
}

// Takes one message of the service; returns false when it has closed the channel.
bool SimulatedModem::ReceiveFrom(const Connection& connection, short happened) {
    Event event = {Event::Kind::kReceived};
    ssize_t size = ReceivePacket(connection.fd.get(), &receive_buffer, &event.time);
    // Tells that the service has not read everything; what it wrote comes after that.
    if (size < 0 && errno == ECONNRESET)
        size = ReceivePacket(connection.fd.get(), &receive_buffer, &event.time);
    if (size < 0) return errno == EAGAIN;
    // What was written after the events were looked for is found next time.
    if (size == 0) return (happened & (POLLRDHUP | POLLHUP)) == 0;
    ReceivedMessage message;
    message.bytes.assign(receive_buffer, 0, static_cast<size_t>(size));
    message.decoded = message.message.ParseFromString(message.bytes);
    if (!message.decoded) message.message.Clear();
    event.text = message.bytes;
    events->Emit(event);
    if (message.message.type() == velmar_message::REQUEST) PlanResponses(message.message);
    {
        const std::lock_guard<std::mutex> guard(lock);
        received.push_back(std::move(message));
    }
    changed.notify_all();
    return true;
}

void SimulatedModem::PlanResponses(const VelmarMessage& request) {
    ResponsePolicy policy;
    {
        const std::lock_guard<std::mutex> guard(lock);
        const auto* payload =
                VelmarMessage::descriptor()->FindFieldByNumber(request.payload_case());
        auto found = policies.find(payload == nullptr ? "" : payload->name());
        if (found == policies.end()) found = policies.find("");
        if (found == policies.end() || found->second.none()) return;
        policy = found->second;
    }
    const auto now = Clock::now();
    const auto due = now + milliseconds(policy.delay_ms());
    VelmarMessage response;
    response.set_type(velmar_message::RESPONSE);
    if (!policy.no_result()) response.set_result(policy.result());
    if (policy.unknown_token_first()) {
        response.set_token(request.token() ^ kUnknownTokenBit);
        planned_responses.emplace(due, response.SerializeAsString());
    }
    response.set_token(request.token());
    for (int copies = policy.twice() ? 2 : 1; copies > 0; --copies) {
        planned_responses.emplace(due, response.SerializeAsString());
    }
    for (const uint32_t delay : policy.again_ms()) {
        planned_responses.emplace(now + milliseconds(delay), response.SerializeAsString());
    }
}

// Milliseconds for poll: -1 when no response is planned.
int SimulatedModem::UntilNextResponse() const {
    if (planned_responses.empty()) return -1;
    const auto left =
            std::chrono::ceil<milliseconds>(planned_responses.begin()->first - Clock::now());
    return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

void SimulatedModem::SendDueResponses() {
    const auto now = Clock::now();
    while (!planned_responses.empty() && planned_responses.begin()->first <= now) {
        const std::string bytes = planned_responses.begin()->second;
        planned_responses.erase(planned_responses.begin());
        const std::lock_guard<std::mutex> guard(lock);
        events->Emit({Event::Kind::kSent, bytes});
        Enqueue(bytes);
    }
}

}  // namespace velmar_sim
