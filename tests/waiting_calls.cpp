#include "waiting_calls.h"

#include <dlfcn.h>

namespace {

thread_local WaitingCalls* calls_of_thread = nullptr;

template <typename Call>
Call* Next(const char* name) {
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

WaitingCalls::WaitingCalls() {
    // What else waits on this thread does wait.
    EXPECT_CALL(*this, Poll)
            .Times(testing::AnyNumber())
            .WillRepeatedly(Next<decltype(poll)>("poll"));
    calls_of_thread = this;
}

WaitingCalls::~WaitingCalls() {
    calls_of_thread = nullptr;
}

extern "C" {

unsigned int sleep(unsigned int seconds) {
    if (calls_of_thread != nullptr) return calls_of_thread->Sleep(seconds);
    return Next<decltype(sleep)>("sleep")(seconds);
}

int usleep(useconds_t microseconds) {
    if (calls_of_thread != nullptr) return calls_of_thread->Usleep(microseconds);
    return Next<decltype(usleep)>("usleep")(microseconds);
}

int poll(pollfd* devices, nfds_t count, int timeout_ms) {
    if (calls_of_thread != nullptr) return calls_of_thread->Poll(devices, count, timeout_ms);
    return Next<decltype(poll)>("poll")(devices, count, timeout_ms);
}

}  // extern "C"
