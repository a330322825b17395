#include "service/velmar_modem_stat_message.h"

#include <android/log.h>

#include "message/log_tag.h"
#include "message/velmar_status.h"

using velmar_message::ModemStatEnableRequest;
using velmar_message::VelmarMessage;

VelmarModemStatMessage::VelmarModemStatMessage(velmar_message::VelmarMessageType type)
    : DiagnosticMessage(VelmarMessage::kModemStatMessage, type) {}

VelmarModemStatMessage::VelmarModemStatMessage(SitMessage* message) : DiagnosticMessage(message) {}

int VelmarModemStatMessage::FillEnableRequest(const std::string& module, int value,
                                              unsigned int type) {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    if (module.empty()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Input module is empty");
        return kStatusInvalid;
    }
    ModemStatEnableRequest* request =
            envelope->mutable_modem_stat_message()->mutable_enable_request();
    request->set_module(module);
    if (value >= 0) request->set_value(value);
    if (type != 0) request->set_type(type);
    return kStatusSuccess;
}

int VelmarModemStatMessage::FillReportRequest() {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    envelope->mutable_modem_stat_message()->mutable_report_request();
    return kStatusSuccess;
}
