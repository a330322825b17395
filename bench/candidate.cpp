#include "bench/candidate.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <stdexcept>
#include <utility>

#include "bench/messages.h"
#include "sim/modem/device_socket.h"
#include "sim/modem/errors.h"
#include "sim/tool/message_text.h"

namespace velmar_bench {

using velmar_sim::ThrowErrno;

namespace {

constexpr timeval kTimeout = {20, 0};
constexpr int kBufferBytes = 1 << 20;

velmar_sim::Phone InState(int modem_state) {
    velmar_sim::Phone phone;
    phone.set_modem_state(modem_state);
    // A device would show the speed of whoever takes its readings.
    auto* file = phone.add_file();
    file->set_path(velmar_sim::kThermalNode);
    return phone;
}

}  // namespace

BareChannel::BareChannel(const velmar_sim::PhoneFolder& folder)
    : listener(velmar_sim::ListenAt(folder.HostPath(velmar_phone::kChannelDevice))) {
    // Accepting waits, but not for ever.
    fcntl(listener.get(), F_SETFL, 0);
    setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &kTimeout, sizeof(kTimeout));
}

void BareChannel::Accept() {
    connection.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection < 0) ThrowErrno("the program does not open the channel");
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDBUF, &kBufferBytes, sizeof(kBufferBytes));
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &kTimeout, sizeof(kTimeout));
}

void BareChannel::Send(const std::string& bytes) const {
    if (send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) ThrowErrno("send");
}

std::string BareChannel::Receive() const {
    char buffer[velmar_sim::kMaxMessageForPhone];
    const ssize_t size = recv(connection.get(), buffer, sizeof(buffer), 0);
    if (size < 0) ThrowErrno("no message comes");
    return {buffer, static_cast<size_t>(size)};
}

void BareChannel::Exchange(const std::string& request, const std::string& response) const {
    Send(request);
    const std::string found = Receive();
    if (found == response) return;
    throw std::runtime_error("expected the response " + velmar_sim::DescribeMessage(response) +
                             ", found " + velmar_sim::DescribeMessage(found));
}

Candidate::Candidate(const std::string& executable, std::string mode, int modem_state)
    : simulation(InState(modem_state), executable, velmar_sim::PhoneFolder(), &events),
      bare_channel(simulation.folder()),
      argument(std::move(mode)) {
    // A log that somebody reads would show the speed of the reader.
    simulation.folder().Remove(velmar_phone::kLogSocket);
}

void Candidate::StartIdle() {
    process = std::make_unique<velmar_sim::ChildProcess>(simulation.LaunchOf({argument}), nullptr,
                                                         nullptr);
}

void Candidate::Start() {
    StartIdle();
    bare_channel.Accept();
    bare_channel.Exchange(Encode(kAbsentRead), Encode(kAbsentResponse));
}

}  // namespace velmar_bench
