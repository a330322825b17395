#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "ril/ril_client_helper.h"

// What RilRequestHelper::Send() returns of its own or acts upon, in the numbering of the radio
// interface layer; every other number is the radio's.
enum RilError : int {
    kRilSuccess = 0,
    kRilRadioNotAvailable = 1,
    kRilInvalidArguments = 44,
    // No response came in time.
    kRilInvalidResponse = 66,
};

// Turns the client library's requests, whose responses come by a callback, into calls that wait for
// the response.
class RilRequestHelper {
  public:
    // The instance, made by the first call that can open a client and kept until the process exits;
    // null when no client can be had, in which case the next call tries again. Nothing guards two
    // first calls at once.
    static RilRequestHelper* GetInstance();

    RilRequestHelper(const RilRequestHelper&) = delete;
    RilRequestHelper& operator=(const RilRequestHelper&) = delete;

    // Sends `length` bytes at `data`, borrowed for the call, as request number `request`, and waits
    // for the response, up to 5 seconds. While the radio responds that it is not available, the
    // request is repeated after a pause of up to 5 seconds, as long as 6 seconds or more are left
    // of `timeout_seconds`; each repetition costs 5 of them.
    //
    // Returns the radio's error code (a RilError or any other number), kRilInvalidResponse when no
    // response came, kRilInvalidArguments for a negative time-out, with nothing sent. The
    // response's bytes are dropped. With a time-out of 0 a radio that is not available blocks the
    // caller for good. Any thread but the library's; callers take turns.
    int Send(unsigned int request, void* data, unsigned long length, int timeout_seconds);

    // The callback of every request: a RilResponseCallback. Any thread, at any time, before Send()
    // has handed its request over as well as long after it has given up. Takes no lock of this
    // class.
    static void Response(unsigned int request, int code, void* data, unsigned long length,
                         unsigned int extra);

  protected:
    RilRequestHelper() = default;

    // Sends the request once and waits for the response, up to 5 seconds. Returns the radio's error
    // code, or kRilInvalidResponse. `wait_guard` holds wait_lock; send_lock is held too.
    int SendOnce(unsigned int request, void* data, unsigned long length,
                 std::unique_lock<std::mutex>* wait_guard);

    // Borrowed.
    RilClientHelper* client_helper = nullptr;
    void* client = nullptr;
    // The response to the current attempt. Written by the callback without a lock.
    std::atomic<bool> received{false};
    std::atomic<int> error{kRilSuccess};
    // Held for a whole request, so that one is outstanding at a time. Taken before `wait_lock`.
    std::mutex send_lock;
    std::mutex wait_lock;
    std::condition_variable response_cond;

    static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
                  "a callback must never wait");

  private:
    static std::unique_ptr<RilRequestHelper> instance;
};
