#include "ril/ril_helper.h"

#include <unistd.h>

#include <chrono>
#include <thread>

using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr seconds kResponseTimeout{5};

// What each repetition takes from the budget, and the longest pause before one.
constexpr int kRetrySeconds = 5;

// How many callbacks are running, and whether the process is exiting.
std::atomic<int> running_callbacks{0};
std::atomic<bool> exiting{false};

// The library's threads do not know that the process exits. Before the instance is destroyed, this
// turns later callbacks away and waits for those that run.
class ExitGate {
  public:
    ExitGate() = default;
    ~ExitGate() {
        exiting = true;
        while (running_callbacks != 0) std::this_thread::yield();
    }

    ExitGate(const ExitGate&) = delete;
    ExitGate& operator=(const ExitGate&) = delete;
};

}  // namespace

std::unique_ptr<RilRequestHelper> RilRequestHelper::instance;

namespace {

// Defined after the instance, so that it is destroyed before it.
ExitGate exit_gate;

}  // namespace

RilRequestHelper* RilRequestHelper::GetInstance() {
    if (instance) return instance.get();
    instance.reset(new RilRequestHelper());
    instance->client_helper = RilClientHelper::GetInstance();
    if (instance->client_helper != nullptr) instance->client = instance->client_helper->Open();
    if (instance->client == nullptr) instance.reset();
    return instance.get();
}

void RilRequestHelper::Response(unsigned int /*request*/, int code, void* /*data*/,
                                unsigned long /*length*/, unsigned int /*extra*/) {
    ++running_callbacks;
    RilRequestHelper* helper = exiting ? nullptr : GetInstance();
    if (helper != nullptr) {
        helper->error = code;
        helper->received = true;
        helper->response_cond.notify_one();
    }
    --running_callbacks;
}

int RilRequestHelper::Send(unsigned int request, void* data, unsigned long length,
                           int timeout_seconds) {
    std::lock_guard<std::mutex> send_guard(send_lock);
    std::unique_lock<std::mutex> wait_guard(wait_lock);
    if (timeout_seconds < 0) return kRilInvalidArguments;
    int remaining = timeout_seconds;
    while (true) {
        int result = SendOnce(request, data, length, &wait_guard);
        if (result != kRilRadioNotAvailable) return result;
        if (timeout_seconds != 0 && remaining <= kRetrySeconds) return result;
        remaining -= kRetrySeconds;
        // With a budget of 0 `remaining` is -5 here, which sleep() takes as 2^32 - 5 seconds:
        // deliberately, the caller is blocked for good.
        sleep(static_cast<unsigned int>(remaining < kRetrySeconds ? remaining : kRetrySeconds));
    }
}

int RilRequestHelper::SendOnce(unsigned int request, void* data, unsigned long length,
                               std::unique_lock<std::mutex>* wait_guard) {
    received = false;
    error = kRilSuccess;
    // The result is ignored; only the response tells.
    client_helper->Send(client, request, data, length, Response);
    // The callback takes no lock and may notify between the test and the wait; its response is
    // then found at the deadline.
    auto deadline = steady_clock::now() + kResponseTimeout;
    if (!response_cond.wait_until(*wait_guard, deadline, [this] { return received.load(); })) {
        error = kRilInvalidResponse;
        return kRilInvalidResponse;
    }
    return error;
}
