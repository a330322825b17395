#include "io/modem_state_monitor.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "base/log.h"
#include "handler/velmar_message_handler.h"

namespace {

constexpr char kBootDevice[] = "/dev/umts_boot0";
constexpr char kNoModemBoardProperty[] = "persist.vendor.radio.no_modem_board";

// The ioctl that gives the state: no argument, type 'o', number 39.
constexpr unsigned int kGetModemState = _IO('o', 0x27);

constexpr short kPollEvents = POLLIN | POLLHUP | POLLRDNORM;

constexpr int kModemStateUnread = -1;
constexpr int kNoTimeout = -1;
constexpr int kPollTimeoutMs = 3000;
constexpr unsigned int kPauseSeconds = 3;

// How long to wait for the device in each of the states 0 to 4.
constexpr int kStateTimeoutMs[] = {kPollTimeoutMs, kPollTimeoutMs, kPollTimeoutMs, kPollTimeoutMs,
                                   kNoTimeout};

int PollTimeoutMs(int state) {
    char no_modem_board[PROPERTY_VALUE_MAX];
    property_get(kNoModemBoardProperty, no_modem_board, "0");
    if (no_modem_board[0] == '1') return kNoTimeout;
    if (state < 0) return 0;
    return state <= kModemStateOnline ? kStateTimeoutMs[state] : kPollTimeoutMs;
}

}  // namespace

ModemStateMonitor* ModemStateMonitor::MakeInstance(VelmarMessageHandler* message_handler) {
    return message_handler != nullptr ? new ModemStateMonitor(message_handler) : nullptr;
}

ModemStateMonitor::ModemStateMonitor(VelmarMessageHandler* message_handler)
    : handler(message_handler), modem_state(kModemStateUnread), boot_fd(-1) {}

ModemStateMonitor::~ModemStateMonitor() {
    thread.reset();
}

int ModemStateMonitor::Start() {
    thread = std::make_unique<Thread>(this);
    int error = thread->Start();
    if (error != 0) EndWaitForDevice();
    // A thread that cannot be created gives a positive number and deliberately passes as success:
    // the service then runs on without it.
    return error < 0 ? -1 : 0;
}

void ModemStateMonitor::WaitForDevice() {
    std::unique_lock<std::mutex> guard(device_lock);
    device_cond.wait(guard, [this] { return device_tried; });
}

void ModemStateMonitor::EndWaitForDevice() {
    std::lock_guard<std::mutex> guard(device_lock);
    device_tried = true;
    device_cond.notify_all();
}

void ModemStateMonitor::Run() {
    boot_fd = open(kBootDevice, O_RDWR);
    if (boot_fd < 0) ALOGE("Failed to open MODEM_BOOT ioctl node");
    EndWaitForDevice();
    if (boot_fd < 0) return;
    ALOGI("Start modem state monitoring");
    pollfd device = {};
    device.fd = boot_fd;
    device.events = kPollEvents;
    while (true) {
        int timeout_ms = PollTimeoutMs(modem_state);
        device.revents = 0;
        int ready = poll(&device, 1, timeout_ms);
        if (ready != 0 && modem_state >= 0 && (ready < 0 || (device.revents & kPollEvents) == 0)) {
            ALOGE("MODEM STATUS : unknown poll event (%d)", device.revents);
            sleep(kPauseSeconds);
            continue;
        }
        if (ready == 0) {
            ALOGI("Poll timeout. interval=%d", timeout_ms);
        }
        // The event only wakes this loop; it is never read from the device.
        PollModemState();
        if (modem_state == 1 || modem_state == 2) sleep(kPauseSeconds);
    }
}

void ModemStateMonitor::PollModemState() {
    int old_state = modem_state;
    int state = GetModemState();
    // Stored even if invalid: it selects the next time-out and suppresses repeated lines.
    modem_state = state;
    if (state == old_state) return;
    if (state < 0 || state > kModemStateOnline) {
        ALOGE("Invalid modem state %d", state);
        return;
    }
    ALOGI("Modem state changed from %d to %d", old_state, state);
    handler->OnModemStateChanged(state);
}

int ModemStateMonitor::GetModemState() {
    int fd = boot_fd;
    if (fd < 0) {
        ALOGE("MODEM_BOOT ioctl fd is invalid");
        return -1;
    }
    return ioctl(fd, kGetModemState);
}
