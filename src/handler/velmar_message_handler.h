#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "base/velmar_status.h"
#include "io/modem_state_monitor.h"
#include "io/sit_io_handler.h"
#include "message/request_list.h"
#include "message/sit_message.h"
#include "service/velmar_service_handler.h"

// The hub of the service, one per process: starts its parts, dispatches every message of the modem,
// sends the service's own requests and responses, and pairs requests with their responses.
//
// Operations return a VelmarStatus. Threads that enter: the IO thread (received messages, and the
// responses that it sends), the state monitor's thread (state changes, and the requests that they
// set off) and the main thread, in the handler of SIGUSR1 and SIGUSR2 (service requests).
class VelmarMessageHandler {
  public:
    // Waits for both threads to end by themselves, and frees the parts.
    virtual ~VelmarMessageHandler();

    // Starts the state monitor, the IO handler, the service handler and the request list, in this
    // order; a part that exists is kept. Returns kStatusSuccess, or kStatusNotFound, with a log
    // line, when the state monitor or the IO handler reports a failure. A thread that cannot be
    // created is not reported as one: the service runs on without it. Called by the main thread,
    // with SIGUSR1 and SIGUSR2 blocked, so that every thread is created with both blocked.
    virtual int Start();

    // Takes note of the modem's state, 0 to 4. A change into online (4) sends the start-up service
    // requests, one after the other, before this returns. Called by the state monitor's thread.
    virtual void OnModemStateChanged(int state);

    // Decodes one message of `length` bytes and hands it to the handler of its type. Returns what
    // that returns, kStatusInvalid for no input, kStatusUnsupported for a message of no known type.
    // Called by the IO thread.
    virtual int ProcessReceivedMessage(void* data, unsigned int length);

    // Hands a request to the service. Returns what its handler returns, or kStatusNotFound when the
    // service has not been started. Borrows the message for the call. Called by the IO thread.
    virtual int RequestHandler(SitMessage* message);

    // Stores a clone of the response and wakes its sender. Returns kStatusSuccess, kStatusInvalid
    // for a message that is not a response, kStatusNotFound for a response to no recorded request,
    // which is dropped. Called by the IO thread.
    virtual int ResponseHandler(SitMessage* message);

    // The same as RequestHandler for an indication.
    virtual int IndicationHandler(SitMessage* message);

    // Sends a request, which must carry a token, and waits for its response as WaitForResponse
    // does. Returns kStatusSuccess when the response has come (GetRequestRecord gives it),
    // kStatusInvalid for a message that is not a request with a token, kStatusEncodeFailed,
    // kStatusWriteFailed, or kStatusTimeout. Its record stays until RemoveRequestRecord. The caller
    // keeps `message`. Never called by the IO thread, which alone delivers responses.
    virtual int SendRequest(SitMessage* message, unsigned int timeout_seconds);

    // Sends a response; nothing is waited for. Returns kStatusSuccess, kStatusInvalid for a message
    // that is not a response, kStatusEncodeFailed or kStatusWriteFailed. The caller keeps
    // `message`. Any thread.
    virtual int SendResponse(SitMessage* message);

    // Carries out a numbered service command (see VelmarServiceHandler) to its end. Returns what
    // the command returns, or kStatusNotFound when the service has not been started. Any thread but
    // the IO thread.
    virtual int SendServiceRequest(unsigned int request);

    // Waits for the response for `token` for up to `timeout_seconds`. Returns kStatusSuccess when
    // it has come, kStatusNotFound when there is no record of `token`, kStatusTimeout after the
    // time-out. A response that was stored before the wait began is noticed only when a further
    // one, for whatever token, causes a wake-up. After each wake-up the time left is counted by the
    // wall clock: one that was set forward ends the wait, one that was set backward lengthens it by
    // as much. Any thread but the IO thread.
    virtual int WaitForResponse(int timeout_seconds, unsigned int token);

    // The process's instance. It exists from before main until normal process exit. Any thread.
    static VelmarMessageHandler* GetInstance();

    // Whether the modem is online now: asks the boot device. Any thread.
    bool IsModemOnline();

    // Waits until the state monitor has opened the boot device, or has failed to. Called by the IO
    // thread and the main thread, before they ask for the modem's state for the first time.
    void WaitForBootDevice();

    // A copy of the record of `token`, with its own clone of the response. Any thread.
    RequestRecord GetRequestRecord(unsigned int token);

    // Removes the record of `token`. Any thread.
    void RemoveRequestRecord(unsigned int token);

    VelmarMessageHandler(const VelmarMessageHandler&) = delete;
    VelmarMessageHandler& operator=(const VelmarMessageHandler&) = delete;

  protected:
    VelmarMessageHandler();

    std::unique_ptr<ModemStateMonitor> state_monitor;
    // The last state that OnModemStateChanged was told; 0 at start.
    std::atomic<int> modem_state;
    // Borrowed; nothing sets it yet.
    RecoveryCallback* recovery_callback;
    std::unique_ptr<VelmarServiceHandler> service_handler;
    std::unique_ptr<SitIoHandler> io_handler;
    // Owned. Set last of the parts: a thread that reads it as set sees the others as well.
    std::atomic<RequestList*> request_list;
    std::mutex response_lock;
    // Signalled whenever a response is stored.
    std::condition_variable response_cond;

  private:
    // Blocks while Start() runs. Returns whether all parts exist.
    bool WaitForParts();

    // Encodes `message` and writes it to the channel. Returns kStatusSuccess, kStatusEncodeFailed
    // or kStatusWriteFailed.
    int WriteMessage(SitMessage* message);

    // Held by Start(): the threads that it creates may have work before every part exists. Taken
    // before any other lock.
    std::mutex start_lock;
    static VelmarMessageHandler instance;
};
