#include "handler/velmar_message_handler.h"

#include <algorithm>
#include <chrono>

#include "base/log.h"

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::system_clock;

namespace {

// Run in this order each time the modem comes online.
constexpr unsigned int kStartUpCommands[] = {kCommandDebugStatConfig, kCommandUserspaceLogEnable,
                                             kCommandGnssCoexConfig};

// reset() clears the pointer before it deletes. The thread that the part joins still uses the
// pointer, so this deletes first.
template <typename Part>
void Destroy(std::unique_ptr<Part>* part) {
    delete part->get();
    (void)part->release();
}

SitMessage* Decode(void* data, unsigned int length) {
    return new SitMessage(static_cast<const char*>(data), static_cast<int>(length));
}

// The list copies the record; this one is deliberately never released.
RequestRecord* NewOutstandingRecord(unsigned int token) {
    return new RequestRecord(token);
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp): it can throw nothing but bad_alloc.
VelmarMessageHandler VelmarMessageHandler::instance;

VelmarMessageHandler::VelmarMessageHandler()
    : modem_state(0), recovery_callback(nullptr), request_list(nullptr) {
    TokenGen::Init();
}

VelmarMessageHandler::~VelmarMessageHandler() {
    // The reader goes first, since it uses the others.
    Destroy(&io_handler);
    Destroy(&state_monitor);
    Destroy(&service_handler);
    delete request_list.load();
    request_list = nullptr;
}

VelmarMessageHandler* VelmarMessageHandler::GetInstance() {
    return &instance;
}

int VelmarMessageHandler::Start() {
    std::lock_guard<std::mutex> guard(start_lock);
    if (!state_monitor) {
        state_monitor.reset(ModemStateMonitor::MakeInstance(this));
        if (!state_monitor || state_monitor->Start() < 0) {
            ALOGE("Failed to start modem state monitor thread");
            return kStatusNotFound;
        }
    }
    if (!io_handler) {
        io_handler = std::make_unique<SitIoHandler>(this);
        if (!io_handler->Start()) {
            ALOGE("Failed to start IO handler");
            return kStatusNotFound;
        }
    }
    if (!service_handler) service_handler = std::make_unique<VelmarServiceHandler>(this);
    RequestList* list = request_list;
    if (list == nullptr) list = new RequestList();
    // Cleaned before the threads can see it: one of them may have a request to record at once.
    list->CleanRecord();
    request_list = list;
    return kStatusSuccess;
}

bool VelmarMessageHandler::WaitForParts() {
    if (request_list != nullptr) return true;
    // With the modem online at the start, both threads may have work before the last parts exist.
    std::lock_guard<std::mutex> guard(start_lock);
    return request_list != nullptr;
}

void VelmarMessageHandler::OnModemStateChanged(int state) {
    int old_state = modem_state.exchange(state);
    if (state != kModemStateOnline || old_state == kModemStateOnline) return;
    for (unsigned int command : kStartUpCommands) SendServiceRequest(command);
    if (recovery_callback == nullptr) return;
    ALOGI("Modem is back. Call recovery callback");
    recovery_callback->NotifyCallBack();
}

bool VelmarMessageHandler::IsModemOnline() {
    return state_monitor->GetModemState() == kModemStateOnline;
}

void VelmarMessageHandler::WaitForBootDevice() {
    state_monitor->WaitForDevice();
}

int VelmarMessageHandler::ProcessReceivedMessage(void* data, unsigned int length) {
    if (data == nullptr || length == 0) return kStatusInvalid;
    SitMessage* message = Decode(data, length);
    int status;
    switch (message->GetType()) {
        case velmar_message::REQUEST:
            status = RequestHandler(message);
            break;
        case velmar_message::RESPONSE:
            status = ResponseHandler(message);
            break;
        case velmar_message::INDICATION:
            status = IndicationHandler(message);
            break;
        default:
            // A message of no known type is deliberately not deleted.
            return kStatusUnsupported;
    }
    delete message;
    return status;
}

int VelmarMessageHandler::RequestHandler(SitMessage* message) {
    if (!WaitForParts()) return kStatusNotFound;
    return service_handler->OnReceiveRequest(message);
}

int VelmarMessageHandler::ResponseHandler(SitMessage* message) {
    if (message == nullptr || !message->IsResponse()) return kStatusInvalid;
    if (!WaitForParts()) return kStatusNotFound;
    unsigned int token = message->GetToken();
    if (!request_list.load()->IsRecordInList(token)) return kStatusNotFound;
    request_list.load()->UpdateResponseMessage(token, message);
    std::lock_guard<std::mutex> guard(response_lock);
    response_cond.notify_all();
    return kStatusSuccess;
}

int VelmarMessageHandler::IndicationHandler(SitMessage* message) {
    if (!WaitForParts()) return kStatusNotFound;
    return service_handler->OnReceiveIndication(message);
}

int VelmarMessageHandler::WriteMessage(SitMessage* message) {
    int length = message->GetProtobufSerialDataLength();
    if (length < 1) return kStatusEncodeFailed;
    std::unique_ptr<char[]> buffer(new char[length]);
    if (!message->SerializeSendMessage(buffer.get(), length)) return kStatusEncodeFailed;
    if (io_handler->SendData(buffer.get(), length) != 0) return kStatusWriteFailed;
    return kStatusSuccess;
}

int VelmarMessageHandler::SendRequest(SitMessage* message, unsigned int timeout_seconds) {
    if (message == nullptr || !message->IsRequest()) return kStatusInvalid;
    unsigned int token = message->GetToken();
    if (token == kNoToken) return kStatusInvalid;
    int status = WriteMessage(message);
    if (status != kStatusSuccess) return status;
    // The request is out before it is recorded: a response that is faster finds no record and is
    // dropped.
    request_list.load()->AddRecord(NewOutstandingRecord(token));
    return WaitForResponse(static_cast<int>(timeout_seconds), token);
}

int VelmarMessageHandler::SendResponse(SitMessage* message) {
    if (message == nullptr || !message->IsResponse()) return kStatusInvalid;
    return WriteMessage(message);
}

int VelmarMessageHandler::SendServiceRequest(unsigned int request) {
    if (!WaitForParts()) return kStatusNotFound;
    return service_handler->SendServiceRequest(request);
}

int VelmarMessageHandler::WaitForResponse(int timeout_seconds, unsigned int token) {
    std::unique_lock<std::mutex> guard(response_lock);
    const int limit_ms = timeout_seconds * 1000;
    milliseconds remaining(limit_ms);
    auto start = system_clock::now();
    if (!request_list.load()->IsRecordInList(token)) return kStatusNotFound;
    while (true) {
        // A clock that was set forward makes the remaining time negative: an immediate time-out.
        std::cv_status status =
                response_cond.wait_for(guard, std::max(remaining, milliseconds::zero()));
        RequestRecord record = request_list.load()->GetRecord(token);
        if (status == std::cv_status::timeout) return kStatusTimeout;
        remaining =
                milliseconds(limit_ms) - duration_cast<milliseconds>(system_clock::now() - start);
        if (record.message != nullptr) return kStatusSuccess;
    }
}

RequestRecord VelmarMessageHandler::GetRequestRecord(unsigned int token) {
    return request_list.load()->GetRecord(token);
}

void VelmarMessageHandler::RemoveRequestRecord(unsigned int token) {
    request_list.load()->RemoveRecord(token);
}
