#pragma once

#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

// Takes the calls of the C library by which the service waits, on the thread that made this object
// and for as long as it lives, so that a test sees how long each wait is to be and need not wait.
// Every other call goes to the C library or to the simulated phone.
class WaitingCalls {
  public:
    WaitingCalls() { of_thread = this; }
    ~WaitingCalls() { of_thread = nullptr; }

    WaitingCalls(const WaitingCalls&) = delete;
    WaitingCalls& operator=(const WaitingCalls&) = delete;

    MOCK_METHOD(unsigned int, Sleep, (unsigned int seconds));
    MOCK_METHOD(int, Usleep, (useconds_t microseconds));
    MOCK_METHOD(int, Poll, (pollfd * devices, nfds_t count, int timeout_ms));

    static thread_local WaitingCalls* of_thread;
};
