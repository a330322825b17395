#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "base/thread.h"

class VelmarMessageHandler;

// The boot state in which the modem accepts messages.
constexpr int kModemStateOnline = 4;

// A function to be called when the modem is back.
class RecoveryCallback {
  public:
    explicit RecoveryCallback(void (*function)()) : callback(function) {}

    // Calls the function. Called by the state monitor's thread.
    void NotifyCallBack() { callback(); }

  private:
    void (*callback)();
};

// Follows the modem's boot state on a thread of its own and reports each change to a valid state,
// 0 to 4, to the message handler.
class ModemStateMonitor : public Runnable {
  public:
    // A monitor that reports to `message_handler` (borrowed), owned by the caller; null when
    // `message_handler` is null.
    static ModemStateMonitor* MakeInstance(VelmarMessageHandler* message_handler);

    // Waits for the thread to end, which it does only when the device could not be opened. The
    // device stays open.
    ~ModemStateMonitor() override;

    // The monitoring loop; returns only when the device cannot be opened.
    void Run() override;

    // Starts the thread. Returns 0, or -1 when the thread wrapper reports a negative error.
    int Start();

    // Waits until the thread has opened the device, has failed to, or could not be created. Called
    // after Start(). Any thread.
    void WaitForDevice();

    // Reads the state, keeps it, and reports it when it is a new, valid one. Called by Run() only.
    void PollModemState();

    // The state as the device gives it now; -1, with a log line, while the device is not open. Any
    // thread.
    int GetModemState();

    ModemStateMonitor(const ModemStateMonitor&) = delete;
    ModemStateMonitor& operator=(const ModemStateMonitor&) = delete;

  protected:
    explicit ModemStateMonitor(VelmarMessageHandler* message_handler);

    // Lets WaitForDevice() return.
    void EndWaitForDevice();

    std::unique_ptr<Thread> thread;
    VelmarMessageHandler* handler;
    // The last state read, valid or not; -1 before the first.
    std::atomic<int> modem_state;
    // Descriptor of the boot device, -1 until Run() has opened it.
    std::atomic<int> boot_fd;

    std::mutex device_lock;
    std::condition_variable device_cond;
    // Guarded by device_lock.
    bool device_tried = false;
};
