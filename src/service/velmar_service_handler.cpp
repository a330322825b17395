#include "service/velmar_service_handler.h"

#include "base/log.h"
#include "base/velmar_status.h"
#include "handler/velmar_message_handler.h"
#include "ril/gnss_coex_service.h"

using velmar_message::VelmarMessage;

namespace {

constexpr unsigned int kRequestTimeoutSeconds = 3;

}  // namespace

VelmarServiceHandler::VelmarServiceHandler(VelmarMessageHandler* handler)
    : message_handler(handler) {}

VelmarServiceHandler::~VelmarServiceHandler() = default;

int VelmarServiceHandler::OnReceiveRequest(SitMessage* message) {
    if (message == nullptr || !message->IsRequest()) return kStatusInvalid;
    int id = message->GetMessageId();
    switch (id) {
        case VelmarMessage::kModemTemperatureMessage:
            ALOGI("Got modem temperature request");
            return OnReceiveModemTemperatureRequest(message);
        case VelmarMessage::kFileMessage:
            ALOGI("Got File write request");
            return OnReceiveFileWriteRequest(message);
        case VelmarMessage::kPropertyMessage:
            ALOGI("Get property request");
            return OnReceivePropertyRequest(message);
        default:
            ALOGE("RequestHandler: Unsupported message id %d", id);
            return kStatusUnsupported;
    }
}

int VelmarServiceHandler::OnReceiveIndication(SitMessage* message) {
    if (message == nullptr || !message->IsIndication()) return kStatusInvalid;
    int id = message->GetMessageId();
    switch (id) {
        case VelmarMessage::kModemStatMessage:
            ALOGI("Got modemstat report indication");
            return OnReceiveModemStatReportIndication(message);
        case VelmarMessage::kExtendedLogMessage:
            ALOGI("Got extended log indication");
            return OnReceiveExtendedLogIndication(message);
        case VelmarMessage::kUserspaceLogMessage:
            ALOGI("Got userspace log indication");
            return OnReceiveUserspaceLogIndication(message);
        case VelmarMessage::kFileMessage:
            ALOGI("Got File write indication");
            return OnReceiveFileWriteIndication(message);
        default:
            ALOGE("IndicationHandler: Unsupported message id %d", id);
            return kStatusUnsupported;
    }
}

int VelmarServiceHandler::SendServiceRequest(unsigned int command) {
    switch (command) {
        case kCommandModemStatReport:
            return SendModemStatReportRequest();
        case kCommandDebugStatConfig:
            return LoadDebugStatConfig();
        case kCommandExtendedLog:
            return SendExtendedLogRequest();
        case kCommandUserspaceLogEnable:
            return SendUserspaceLogEnableRequest();
        case kCommandGnssCoexConfig:
            return LoadGnssCoexConfig();
        default:
            ALOGE("Unsupport command type %d", command);
            return kStatusInvalid;
    }
}

bool VelmarServiceHandler::CheckModemOnline() {
    if (message_handler->IsModemOnline()) return true;
    ALOGE("Modem is not online");
    return false;
}

int VelmarServiceHandler::ExchangeRequest(SitMessage* request, const ExchangeLines& lines) {
    ALOGI("%s", lines.sending);
    int status = message_handler->SendRequest(request, kRequestTimeoutSeconds);
    if (status != kStatusSuccess) {
        // Its record deliberately stays: a late response is still stored.
        ALOGE("Failed to send request, status:%d", status);
        return status;
    }
    RequestRecord record = message_handler->GetRequestRecord(request->GetToken());
    bool succeeded =
            record.message != nullptr && record.message->GetResult() == velmar_message::SUCCESS;
    if (succeeded) {
        ALOGI("%s", lines.succeeded);
    } else {
        ALOGE("%s", lines.failed);
    }
    message_handler->RemoveRequestRecord(request->GetToken());
    return succeeded ? kStatusSuccess : kStatusRefused;
}
