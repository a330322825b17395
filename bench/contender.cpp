#include "bench/contender.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <stdexcept>
#include <utility>

#include "bench/messages.h"
#include "sim/modem/device_socket.h"
#include "sim/modem/errors.h"
#include "sim/phone/phone_state.h"
#include "sim/tool/message_text.h"

namespace velmar_bench {

using velmar_sim::ThrowErrno;

namespace {

constexpr timeval kPatience = {20, 0};
constexpr int kBufferBytes = 1 << 20;

}  // namespace

BareChannel::BareChannel(const velmar_sim::PhoneFolder& folder)
    : listener(velmar_sim::ListenAt(folder.HostPath(velmar_phone::kChannelDevice))) {
    // Accepting waits.
    fcntl(listener.get(), F_SETFL, 0);
    setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
}

void BareChannel::Accept() {
    connection.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection < 0) ThrowErrno("the program does not open the channel");
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDBUF, &kBufferBytes, sizeof(kBufferBytes));
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
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

Contender::Contender(const std::string& folder, Program what, int modem_state)
    : phone(folder, nullptr), bare_channel(phone.folder()), program(std::move(what)) {
    phone.modem().SetState(modem_state);
    // A device would show the speed of whoever takes its readings.
    phone.folder().Remove(velmar_sim::kThermalNode);
    phone.folder().WriteFile(velmar_sim::kThermalNode, "");
}

void Contender::StartIdle() {
    process = phone.Run(program.executable, program.argument, nullptr);
}

void Contender::Start() {
    StartIdle();
    bare_channel.Accept();
    Exchange(AbsentPropertyRead().SerializeAsString(),
             AnswerToAbsentPropertyRead().SerializeAsString());
}

void Contender::Exchange(const std::string& request, const std::string& answer) const {
    bare_channel.Send(request);
    const std::string found = bare_channel.Receive();
    if (found == answer) return;
    throw std::runtime_error("expected the answer " + velmar_sim::DescribeMessage(answer) +
                             ", found " + velmar_sim::DescribeMessage(found));
}

}  // namespace velmar_bench
