#include "sim/modem/thermal_driver.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <utility>

#include "google/protobuf/stubs/strutil.h"

#include "sim/modem/device_socket.h"
#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

using android::base::unique_fd;

// What the kernel passes to a driver's node at once, in bytes.
constexpr size_t kNodeBufferSize = 4096;

}  // namespace

ThermalDriver::ThermalDriver(const PhoneFolder& folder, EventStream* event_stream)
    : events(event_stream),
      listener(ListenAt(folder.HostPath(kThermalNode))),
      stop_fd(eventfd(0, EFD_CLOEXEC)) {
    if (stop_fd < 0) ThrowErrno("eventfd");
    thread = std::thread(&ThermalDriver::Run, this);
}

ThermalDriver::~ThermalDriver() {
    eventfd_write(stop_fd.get(), 1);
    thread.join();
}

std::vector<std::string> ThermalDriver::TakeWrites() {
    const std::lock_guard<std::mutex> guard(lock);
    ReadWrites();
    return std::exchange(writes, {});
}

void ThermalDriver::Run() {
    while (true) {
        std::vector<pollfd> polled = {{stop_fd.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
        {
            const std::lock_guard<std::mutex> guard(lock);
            ReadWrites();
            for (const unique_fd& writer : writers) polled.push_back({writer.get(), POLLIN, 0});
        }
        poll(polled.data(), polled.size(), -1);
        if (polled.front().revents != 0) return;
    }
}

// Reads every writer to its end before the next one, which keeps the order of their writes: the
// service opens the node for each report anew. Called with the lock held.
void ThermalDriver::ReadWrites() {
    while (true) {
        unique_fd writer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (writer < 0) break;
        writers.push_back(std::move(writer));
    }
    writers.remove_if([this](const unique_fd& writer) { return ReadToEnd(writer); });
}

// Takes what the writer has written so far; returns whether it has closed the node.
bool ThermalDriver::ReadToEnd(const unique_fd& writer) {
    char buffer[kNodeBufferSize];
    for (bool has_closed = false;;) {
        const ssize_t size = recv(writer.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        if (size < 0 && errno == EAGAIN) return false;
        if (size <= 0) {
            // The kernel looks for a packet first and for the end afterwards, so that a writer who
            // writes and closes in between seems to have ended with a packet still unread.
            if (has_closed) return true;
            has_closed = true;
            continue;
        }
        writes.emplace_back(buffer, static_cast<size_t>(size));
        events->EmitText("velmar wrote \"" + google::protobuf::CEscape(writes.back()) + "\" to " +
                         kThermalNode);
    }
}

}  // namespace velmar_sim
