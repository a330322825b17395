#include "service/velmar_service_handler.h"

#include <android/log.h>

#include "message/log_tag.h"
#include "message/velmar_status.h"
#include "ril/gnss_coex_config.h"

using velmar_message::VelmarMessage;

VelmarServiceHandler::VelmarServiceHandler(VelmarMessageHandler* handler)
    : message_handler(handler) {}

VelmarServiceHandler::~VelmarServiceHandler() = default;

int VelmarServiceHandler::OnReceiveRequest(SitMessage* message) {
    if (message == nullptr || !message->IsRequest()) return kStatusInvalid;
    int id = message->GetMessageId() & 0xFFFF;
    switch (id) {
        case VelmarMessage::kModemTemperatureMessage:
            __android_log_print(ANDROID_LOG_INFO, kLogTag, "Got modem temperature request");
            return OnReceiveModemTemperatureRequest(message);
        case VelmarMessage::kFileMessage:
            __android_log_print(ANDROID_LOG_INFO, kLogTag, "Got File write request");
            return OnReceiveFileWriteRequest(message);
        case VelmarMessage::kPropertyMessage:
            __android_log_print(ANDROID_LOG_INFO, kLogTag, "Get property request");
            return OnReceivePropertyRequest(message);
        default:
            __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                                "RequestHandler: Unsupported message id %d", id);
            return kStatusUnsupported;
    }
}

int VelmarServiceHandler::OnReceiveIndication(SitMessage* message) {
    if (message == nullptr || !message->IsIndication()) return kStatusInvalid;
    int id = message->GetMessageId() & 0xFFFF;
    switch (id) {
        case VelmarMessage::kModemStatMessage:
            __android_log_print(ANDROID_LOG_INFO, kLogTag, "Got modemstat report indication");
            return OnReceiveModemStatReportIndication(message);
        case VelmarMessage::kExtendedLogMessage:
            __android_log_print(ANDROID_LOG_INFO, kLogTag, "Got extended log indication");
            return OnReceiveExtendedLogIndication(message);
        case VelmarMessage::kUserspaceLogMessage:
            __android_log_print(ANDROID_LOG_INFO, kLogTag, "Got userspace log indication");
            return OnReceiveUserspaceLogIndication(message);
        case VelmarMessage::kFileMessage:
            __android_log_print(ANDROID_LOG_INFO, kLogTag, "Got File write indication");
            return OnReceiveFileWriteIndication(message);
        default:
            __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                                "IndicationHandler: Unsupported message id %d", id);
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
            __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Unsupport command type %d", command);
            return kStatusInvalid;
    }
}
