#include "sim/modem/log_socket.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "sim/modem/device_socket.h"
#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

// Longer than liblog makes any.
constexpr size_t kMaxDatagram = 8192;

// By their numbers, from 2 on.
constexpr std::string_view kPriorities = "VDIWEF";
constexpr size_t kFirstPriority = 2;

struct [[gnu::packed]] Header {
    uint8_t buffer;
    uint16_t thread;
    uint32_t seconds;
    uint32_t nanoseconds;
    uint8_t priority;
};

// What does not have the form of a line is one all the same, without priority and tag.
LogLine LineFrom(std::string_view datagram) {
    LogLine line = {Event::Kind::kLog, std::string(datagram)};
    Header header = {};
    const size_t tag_end = datagram.find('\0', sizeof(header));
    if (tag_end >= datagram.size() - 1 || datagram.back() != '\0') return line;
    memcpy(&header, datagram.data(), sizeof(header));
    const size_t priority = header.priority - kFirstPriority;
    line.priority = priority < kPriorities.size() ? kPriorities[priority] : '?';
    line.tag = datagram.substr(sizeof(header), tag_end - sizeof(header));
    line.text = datagram.substr(tag_end + 1);
    line.text.pop_back();
    line.number = header.thread;
    line.total = header.buffer;
    // Copies, since what is packed allows no references.
    line.time = FromWallClock(std::chrono::seconds(int64_t{header.seconds}) +
                              std::chrono::nanoseconds(int64_t{header.nanoseconds}));
    return line;
}

}  // namespace

LogSocket::LogSocket(const PhoneFolder& folder, Reader line_reader)
    : reader(std::move(line_reader)),
      socket(ReceiveAt(folder.HostPath(velmar_phone::kLogSocket))),
      stop_fd(eventfd(0, EFD_CLOEXEC)) {
    if (stop_fd < 0) ThrowErrno("eventfd");
    thread = std::thread(&LogSocket::Run, this);
}

LogSocket::~LogSocket() {
    eventfd_write(stop_fd.get(), 1);
    thread.join();
}

void LogSocket::Drain() {
    std::array<char, kMaxDatagram> buffer;
    const std::lock_guard<std::mutex> guard(lock);
    while (true) {
        const ssize_t size = recv(socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 0 && errno != EINTR) return;
        if (size >= 0) reader(LineFrom({buffer.data(), static_cast<size_t>(size)}));
    }
}

void LogSocket::Run() {
    std::array<pollfd, 2> polled = {{{stop_fd.get(), POLLIN, 0}, {socket.get(), POLLIN, 0}}};
    while (polled[0].revents == 0) {
        Drain();
        poll(polled.data(), polled.size(), -1);
    }
}

}  // namespace velmar_sim
