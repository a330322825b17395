#include "waiting_calls.h"

#include <dlfcn.h>

namespace {

template <typename Call>
Call* Next(const char* name) {
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

thread_local WaitingCalls* WaitingCalls::of_thread = nullptr;

extern "C" {

unsigned int sleep(unsigned int seconds) {
    if (WaitingCalls::of_thread != nullptr) return WaitingCalls::of_thread->Sleep(seconds);
    return Next<decltype(sleep)>("sleep")(seconds);
}

int usleep(useconds_t microseconds) {
    if (WaitingCalls::of_thread != nullptr) return WaitingCalls::of_thread->Usleep(microseconds);
    return Next<decltype(usleep)>("usleep")(microseconds);
}

int poll(pollfd* devices, nfds_t count, int timeout_ms) {
    WaitingCalls* calls = WaitingCalls::of_thread;
    if (calls != nullptr) return calls->Poll(devices, count, timeout_ms);
    return Next<decltype(poll)>("poll")(devices, count, timeout_ms);
}

}  // extern "C"
