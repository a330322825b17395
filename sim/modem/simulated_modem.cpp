#include "sim/modem/simulated_modem.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "google/protobuf/stubs/strutil.h"

#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

using android::base::unique_fd;
using std::chrono::milliseconds;
using velmar_message::VelmarMessage;

// More than any message of either side; the kernel bounds both to the socket's send buffer.
constexpr size_t kReceiveBufferSize = size_t{1} << 20;
// Asked for; the kernel grants what its limit allows, and never less than 128 KiB.
constexpr int kSendBufferSize = 1 << 20;
constexpr timeval kSendTimeout = {5, 0};
constexpr int kListenBacklog = 64;
// What the kernel passes to a driver's node at once.
constexpr size_t kNodeBufferSize = 4096;
constexpr uint32_t kUnknownTokenBit = 0x80000000;

velmar_phone::PhoneState* MapState(const PhoneFolder& folder) {
    const std::string path = folder.HostPath(velmar_phone::kStateFile);
    const unique_fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (fd < 0) ThrowErrno("open " + path);
    void* mapped = mmap(nullptr, sizeof(velmar_phone::PhoneState), PROT_READ | PROT_WRITE,
                        MAP_SHARED, fd.get(), 0);
    if (mapped == MAP_FAILED) ThrowErrno("mmap " + path);
    return static_cast<velmar_phone::PhoneState*>(mapped);
}

// Copies `text` with its final null into a fixed field of the state page.
template <size_t kSize>
void CopyText(const std::string& text, char (&field)[kSize]) {
    if (text.empty() || text.size() >= kSize) {
        throw std::runtime_error("fault: \"" + text + "\" has " + std::to_string(text.size()) +
                                 " bytes, expected 1 to " + std::to_string(kSize - 1));
    }
    memcpy(field, text.c_str(), text.size() + 1);
}

}  // namespace

void SimulatedModem::StateUnmapper::operator()(velmar_phone::PhoneState* mapped) const {
    munmap(mapped, sizeof(*mapped));
}

SimulatedModem::SimulatedModem(const PhoneFolder& folder, ModemObserver* modem_observer)
    : observer(modem_observer),
      state(MapState(folder)),
      wake_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      receive_buffer(kReceiveBufferSize, '\0'),
      channel(Listen(folder, velmar_phone::kChannelDevice)),
      boot(Listen(folder, velmar_phone::kBootDevice)),
      thermal(Listen(folder, kThermalNode)) {
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

SimulatedModem::Device SimulatedModem::Listen(const PhoneFolder& folder, const char* path) {
    const std::string host_path = folder.HostPath(path);
    const size_t name = host_path.rfind('/') + 1;
    Device device;
    device.name = path;
    device.listener.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (device.listener < 0) ThrowErrno("socket");

    // An address holds 107 bytes, a folder's path may have more.
    const unique_fd directory(
            open(host_path.substr(0, name).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (directory < 0) ThrowErrno("open " + host_path.substr(0, name));
    const std::string address_path =
            "/proc/self/fd/" + std::to_string(directory.get()) + "/" + host_path.substr(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, address_path.c_str(), address_path.size() + 1);

    unlink(host_path.c_str());
    if (bind(device.listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
        0) {
        ThrowErrno("bind " + host_path);
    }
    if (listen(device.listener.get(), kListenBacklog) != 0) ThrowErrno("listen " + host_path);
    return device;
}

void SimulatedModem::Wake() const {
    const uint64_t one = 1;
    // A counter that is full wakes as well, so the result does not matter.
    [[maybe_unused]] const ssize_t written = write(wake_fd.get(), &one, sizeof(one));
}

void SimulatedModem::Notice(const std::string& text) const {
    if (observer != nullptr) observer->OnEvent(text);
}

// Called with the lock held.
void SimulatedModem::AcceptOpeners(Device* device) {
    while (true) {
        auto connection = std::make_shared<Connection>(
                accept4(device->listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection->fd < 0) return;
        const int fd = connection->fd.get();
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBufferSize, sizeof(kSendBufferSize));
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof(kSendTimeout));
        device->connections.push_back(std::move(connection));
        Notice("velmar opened " + device->name);
        changed.notify_all();
        Wake();
    }
}

void SimulatedModem::Drop(Device* device, const ConnectionPtr& connection) {
    const std::lock_guard<std::mutex> guard(lock);
    auto& all = device->connections;
    const auto found = std::find(all.begin(), all.end(), connection);
    if (found == all.end()) return;
    all.erase(found);
    Notice("velmar closed " + device->name);
}

void SimulatedModem::SetState(int new_state, int wakes) {
    Notice("modem state " + std::to_string(new_state) +
           (wakes == 1 ? "" : ", events: " + std::to_string(wakes)));
    const std::lock_guard<std::mutex> guard(lock);
    // The state comes first: whoever opened the device before this line is woken, and whoever
    // opens it later reads the new state.
    state->boot_state.store(new_state, std::memory_order_release);
    AcceptOpeners(&boot);
    for (const ConnectionPtr& connection : boot.connections) {
        const char packet = 0;
        // A full socket holds wake-ups enough.
        for (int i = 0; i < wakes; ++i) {
            send(connection->fd.get(), &packet, sizeof(packet), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }
}

bool SimulatedModem::WaitForChannel(milliseconds timeout) {
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, timeout, [this] { return NewestOpen() != nullptr; });
}

// The newest connection, or null when the service has the channel not open. Called with the lock
// held.
SimulatedModem::ConnectionPtr SimulatedModem::NewestOpen() {
    AcceptOpeners(&channel);
    if (channel.connections.empty() || channel.connections.back()->finished) return nullptr;
    // The service may have closed it without the thread having noticed.
    pollfd polled = {channel.connections.back()->fd.get(), POLLRDHUP, 0};
    if (poll(&polled, 1, 0) != 0) return nullptr;
    return channel.connections.back();
}

SimulatedModem::ConnectionPtr SimulatedModem::OpenChannel() {
    const std::lock_guard<std::mutex> guard(lock);
    return NewestOpen();
}

void SimulatedModem::Transmit(const ConnectionPtr& connection, const std::string& bytes) const {
    const std::string what = "a message of " + std::to_string(bytes.size()) + " bytes";
    if (connection == nullptr) {
        throw std::runtime_error(what + " cannot be sent: the service has not opened the channel");
    }
    if (observer != nullptr && !bytes.empty()) observer->OnSent(bytes);
    // The lock is not held: this may wait for the service, and the service for our thread.
    if (send(connection->fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0) return;
    if (errno == EAGAIN) {
        throw std::runtime_error(what + " cannot be sent: the channel is full, for " +
                                 std::to_string(kSendTimeout.tv_sec) +
                                 " s the service has read nothing");
    }
    ThrowErrno(what + " cannot be sent");
}

void SimulatedModem::Send(const VelmarMessage& message) {
    SendBytes(message.SerializeAsString());
}

void SimulatedModem::SendBytes(const std::string& bytes) {
    if (bytes.empty()) throw std::runtime_error("a message needs at least one byte");
    Transmit(OpenChannel(), bytes);
}

void SimulatedModem::SendEndOfFile() {
    const ConnectionPtr connection = OpenChannel();
    Notice("end of file on the channel");
    Transmit(connection, "");
    const std::lock_guard<std::mutex> guard(lock);
    connection->finished = true;
}

void SimulatedModem::HangUp() {
    Notice("modem hangs up");
    const std::lock_guard<std::mutex> guard(lock);
    AcceptOpeners(&channel);
    for (const ConnectionPtr& connection : channel.connections) {
        shutdown(connection->fd.get(), SHUT_RDWR);
    }
    channel.connections.clear();
    // The thread may still poll the descriptors, which keeps them open.
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

void SimulatedModem::SetAnswerPolicy(const AnswerPolicy& policy,
                                     VelmarMessage::PayloadCase payload) {
    const std::lock_guard<std::mutex> guard(lock);
    if (payload == VelmarMessage::PAYLOAD_NOT_SET) policies.clear();
    policies[payload] = policy;
}

std::vector<std::string> SimulatedModem::TakeThermalWrites() {
    const std::lock_guard<std::mutex> guard(lock);
    ReadThermalWrites();
    return std::exchange(thermal_writes, {});
}

void SimulatedModem::AddFault(const FaultRule& rule) {
    if (rule.times < 1 || rule.skip < 0 || rule.length < 0) {
        throw std::runtime_error("fault: expected times above 0, skip and length not below 0");
    }
    const std::lock_guard<std::mutex> guard(lock);
    for (int slot = 0; slot < velmar_phone::kMaxFaults; ++slot) {
        velmar_phone::Fault& fault = state->faults[slot];
        if (fault.remaining.load(std::memory_order_acquire) > 0) continue;
        CopyText(rule.call, fault.call);
        CopyText(rule.path, fault.path);
        fault.error = rule.error;
        fault.length = rule.length;
        fault.skip.store(rule.skip, std::memory_order_relaxed);
        fault.remaining.store(rule.times, std::memory_order_release);
        const int in_use = state->fault_count.load(std::memory_order_relaxed);
        state->fault_count.store(std::max(in_use, slot + 1), std::memory_order_release);
        return;
    }
    throw std::runtime_error("fault: all " + std::to_string(velmar_phone::kMaxFaults) +
                             " slots are in use");
}

void SimulatedModem::ClearFaults() {
    const std::lock_guard<std::mutex> guard(lock);
    for (velmar_phone::Fault& fault : state->faults) {
        fault.remaining.store(0, std::memory_order_release);
    }
    state->fault_count.store(0, std::memory_order_release);
}

int SimulatedModem::FaultsLeft() const {
    int left = 0;
    for (const velmar_phone::Fault& fault : state->faults) {
        left += fault.remaining.load(std::memory_order_acquire);
    }
    return left;
}

void SimulatedModem::Run() {
    while (true) {
        std::vector<Opener> openers;
        std::vector<pollfd> polled = {{wake_fd.get(), POLLIN, 0},
                                      {channel.listener.get(), POLLIN, 0},
                                      {boot.listener.get(), POLLIN, 0},
                                      {thermal.listener.get(), POLLIN, 0}};
        const size_t first_opener = polled.size();
        bool reads_channel = true;
        {
            const std::lock_guard<std::mutex> guard(lock);
            if (stopping) return;
            reads_channel = reading;
            for (Device* device : {&channel, &boot, &thermal}) {
                for (const auto& opener : device->connections) openers.push_back({device, opener});
            }
        }
        for (const Opener& opener : openers) {
            const bool is_read =
                    opener.device == &thermal || (opener.device == &channel && reads_channel);
            const short events = is_read ? POLLIN | POLLRDHUP : POLLRDHUP;
            polled.push_back({opener.connection->fd.get(), events, 0});
        }
        poll(polled.data(), polled.size(), UntilNextAnswer());

        eventfd_t wakes = 0;
        eventfd_read(wake_fd.get(), &wakes);
        {
            const std::lock_guard<std::mutex> guard(lock);
            AcceptOpeners(&channel);
            AcceptOpeners(&boot);
            ReadThermalWrites();
        }
        for (size_t i = 0; i < openers.size(); ++i) {
            const short events = polled[first_opener + i].revents;
            if (events == 0) continue;
            if (openers[i].device == &channel) ReceiveFrom(openers[i].connection, events);
            if (openers[i].device == &boot) Drop(&boot, openers[i].connection);
        }
        SendDueAnswers();
    }
}

void SimulatedModem::ReceiveFrom(const ConnectionPtr& connection, short events) {
    const ssize_t size =
            recv(connection->fd.get(), receive_buffer.data(), receive_buffer.size(), MSG_DONTWAIT);
    if (size < 0 && errno == EAGAIN) return;
    // Nothing to read after a hang-up is the end; without one it is an empty message.
    if (size < 0 || (size == 0 && (events & (POLLRDHUP | POLLHUP)) != 0)) {
        Drop(&channel, connection);
        return;
    }
    ReceivedMessage message;
    message.time = Clock::now();
    message.bytes.assign(receive_buffer, 0, static_cast<size_t>(size));
    message.decoded = message.message.ParseFromString(message.bytes);
    if (!message.decoded) message.message.Clear();
    if (observer != nullptr) observer->OnReceived(message);
    if (message.message.type() == velmar_message::REQUEST) PlanAnswers(message.message);
    {
        const std::lock_guard<std::mutex> guard(lock);
        received.push_back(std::move(message));
    }
    changed.notify_all();
}

// Reads every writer to its end before the next one, which keeps the order of their writes: the
// service opens the node for each report anew. Called with the lock held.
void SimulatedModem::ReadThermalWrites() {
    AcceptOpeners(&thermal);
    auto& writers = thermal.connections;
    const auto has_ended = [this](const ConnectionPtr& writer) { return ReadToEnd(writer); };
    writers.erase(std::remove_if(writers.begin(), writers.end(), has_ended), writers.end());
}

// Takes what the writer has written so far; gives whether it has closed the node.
bool SimulatedModem::ReadToEnd(const ConnectionPtr& writer) {
    char buffer[kNodeBufferSize];
    for (bool has_closed = false;;) {
        const ssize_t size = recv(writer->fd.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        if (size < 0 && errno == EAGAIN) return false;
        if (size <= 0) {
            // The kernel looks for a packet first and for the end afterwards, so that a writer who
            // writes and closes in between seems to have ended with a packet still unread.
            if (has_closed) return true;
            has_closed = true;
            continue;
        }
        thermal_writes.emplace_back(buffer, static_cast<size_t>(size));
        Notice("velmar wrote \"" + google::protobuf::CEscape(thermal_writes.back()) + "\" to " +
               thermal.name);
    }
}

void SimulatedModem::PlanAnswers(const VelmarMessage& request) {
    AnswerPolicy policy;
    policy.answer = false;
    {
        const std::lock_guard<std::mutex> guard(lock);
        auto found = policies.find(request.payload_case());
        if (found == policies.end()) found = policies.find(VelmarMessage::PAYLOAD_NOT_SET);
        if (found != policies.end()) policy = found->second;
    }
    if (!policy.answer) return;
    const auto due = Clock::now() + policy.delay;
    VelmarMessage answer;
    answer.set_type(velmar_message::RESPONSE);
    if (policy.result) answer.set_result(*policy.result);
    if (policy.unknown_token_first) {
        answer.set_token(request.token() ^ kUnknownTokenBit);
        planned_answers.emplace(due, answer.SerializeAsString());
    }
    answer.set_token(request.token());
    for (int i = 0; i < policy.copies; ++i) {
        planned_answers.emplace(due, answer.SerializeAsString());
    }
}

// Milliseconds for poll: -1 when no answer is planned.
int SimulatedModem::UntilNextAnswer() const {
    if (planned_answers.empty()) return -1;
    const auto left =
            std::chrono::ceil<milliseconds>(planned_answers.begin()->first - Clock::now());
    return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

void SimulatedModem::SendDueAnswers() {
    const auto now = Clock::now();
    while (!planned_answers.empty() && planned_answers.begin()->first <= now) {
        const std::string bytes = planned_answers.begin()->second;
        planned_answers.erase(planned_answers.begin());
        try {
            Transmit(OpenChannel(), bytes);
        } catch (const std::runtime_error& error) {
            Notice(std::string("answer: ") + error.what());
        }
    }
}

}  // namespace velmar_sim
