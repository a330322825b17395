#include "service/payload_messages.h"

#include "base/log.h"
#include "base/velmar_status.h"

using velmar_message::ModemStatEnableRequest;
using velmar_message::VelmarMessage;
using velmar_message::VelmarMessageType;

DiagnosticMessage::DiagnosticMessage(VelmarMessage::PayloadCase id, VelmarMessageType type)
    : sit_message(std::make_unique<SitMessage>()) {
    sit_message->InitialHeader(id, type);
}

DiagnosticMessage::DiagnosticMessage(SitMessage* message)
    : sit_message(message != nullptr ? message->Clone() : nullptr) {}

DiagnosticMessage::~DiagnosticMessage() = default;

SitMessage* DiagnosticMessage::GetSitMessage() const {
    return sit_message.get();
}

VelmarMessage* DiagnosticMessage::EnvelopeToFill() {
    VelmarMessage* envelope = sit_message ? sit_message->GetVelmarMessage() : nullptr;
    if (envelope == nullptr) ALOGE("sit_message is invalid");
    return envelope;
}

VelmarModemStatMessage::VelmarModemStatMessage(VelmarMessageType type)
    : DiagnosticMessage(VelmarMessage::kModemStatMessage, type) {}

VelmarModemStatMessage::VelmarModemStatMessage(SitMessage* message) : DiagnosticMessage(message) {}

int VelmarModemStatMessage::FillEnableRequest(const std::string& module, int value,
                                              unsigned int type) {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    if (module.empty()) {
        ALOGE("Input module is empty");
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

VelmarExtendedLogMessage::VelmarExtendedLogMessage(VelmarMessageType type)
    : DiagnosticMessage(VelmarMessage::kExtendedLogMessage, type) {}

VelmarExtendedLogMessage::VelmarExtendedLogMessage(SitMessage* message)
    : DiagnosticMessage(message) {}

int VelmarExtendedLogMessage::FillRequest() {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    envelope->mutable_extended_log_message()->mutable_request();
    return kStatusSuccess;
}

VelmarUserspaceLogMessage::VelmarUserspaceLogMessage(VelmarMessageType type)
    : DiagnosticMessage(VelmarMessage::kUserspaceLogMessage, type) {}

VelmarUserspaceLogMessage::VelmarUserspaceLogMessage(SitMessage* message)
    : DiagnosticMessage(message) {}

int VelmarUserspaceLogMessage::FillEnableRequest(const std::string& name) {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    if (name.empty()) {
        ALOGE("Input name is empty");
        return kStatusInvalid;
    }
    envelope->mutable_userspace_log_message()->mutable_enable_request()->set_name(name);
    return kStatusSuccess;
}

ResponseMessage::ResponseMessage(VelmarMessage::PayloadCase id, VelmarMessageType type,
                                 SitMessage* request)
    : message(std::make_unique<SitMessage>()) {
    message->InitialHeader(id, type);
    const VelmarMessage* asked = request != nullptr ? request->GetVelmarMessage() : nullptr;
    if (asked != nullptr && asked->has_token()) {
        message->GetVelmarMessage()->set_token(asked->token());
    }
}

ResponseMessage::~ResponseMessage() = default;

SitMessage* ResponseMessage::GetSitMessage() const {
    return message.get();
}

void ResponseMessage::SetResult(velmar_message::VelmarResult result) {
    if (message) message->GetVelmarMessage()->set_result(result);
}

VelmarPropertyMessage::VelmarPropertyMessage(VelmarMessageType type, SitMessage* request)
    : ResponseMessage(VelmarMessage::kPropertyMessage, type, request) {}

void VelmarPropertyMessage::FillReadResponse(const char* value) {
    if (!message) return;
    VelmarMessage* envelope = message->GetVelmarMessage();
    envelope->mutable_property_message()->mutable_read_response()->set_value(value);
}

void VelmarPropertyMessage::FillWriteResponse() {
    if (message) message->GetVelmarMessage()->mutable_property_message()->mutable_write_response();
}

VelmarFileMessage::VelmarFileMessage(VelmarMessageType type, SitMessage* request)
    : ResponseMessage(VelmarMessage::kFileMessage, type, request) {}

void VelmarFileMessage::FillWriteResponse() {
    if (message) message->GetVelmarMessage()->mutable_file_message()->mutable_file_write_response();
}

void VelmarFileMessage::SetFileMessageResult(velmar_message::FileMessageResult result) {
    if (!message) return;
    VelmarMessage* envelope = message->GetVelmarMessage();
    envelope->mutable_file_message()->mutable_file_write_response()->set_file_result(result);
}
