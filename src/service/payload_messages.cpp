#include "service/payload_messages.h"

#include "base/log.h"
#include "base/velmar_status.h"

using velmar_message::ModemStatEnableRequest;
using velmar_message::VelmarMessage;
using velmar_message::VelmarMessageType;

PayloadMessage::PayloadMessage(VelmarMessage::PayloadCase id, VelmarMessageType type,
                               SitMessage* request)
    : sit_message(std::make_unique<SitMessage>()) {
    sit_message->InitialHeader(id, type);
    const VelmarMessage* asked = request != nullptr ? request->GetVelmarMessage() : nullptr;
    if (asked != nullptr && asked->has_token()) {
        sit_message->GetVelmarMessage()->set_token(asked->token());
    }
}

PayloadMessage::PayloadMessage(SitMessage* message)
    : sit_message(message != nullptr ? message->Clone() : nullptr) {}

PayloadMessage::~PayloadMessage() = default;

SitMessage* PayloadMessage::GetSitMessage() const {
    return sit_message.get();
}

void PayloadMessage::SetResult(velmar_message::VelmarResult result) {
    if (VelmarMessage* envelope = Envelope()) envelope->set_result(result);
}

VelmarMessage* PayloadMessage::Envelope() {
    return sit_message ? sit_message->GetVelmarMessage() : nullptr;
}

VelmarMessage* PayloadMessage::EnvelopeToFill() {
    VelmarMessage* envelope = Envelope();
    if (envelope == nullptr) ALOGE("sit_message is invalid");
    return envelope;
}

VelmarModemStatMessage::VelmarModemStatMessage(VelmarMessageType type)
    : PayloadMessage(VelmarMessage::kModemStatMessage, type) {}

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
    : PayloadMessage(VelmarMessage::kExtendedLogMessage, type) {}

int VelmarExtendedLogMessage::FillRequest() {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    envelope->mutable_extended_log_message()->mutable_request();
    return kStatusSuccess;
}

VelmarUserspaceLogMessage::VelmarUserspaceLogMessage(VelmarMessageType type)
    : PayloadMessage(VelmarMessage::kUserspaceLogMessage, type) {}

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

VelmarPropertyMessage::VelmarPropertyMessage(VelmarMessageType type, SitMessage* request)
    : PayloadMessage(VelmarMessage::kPropertyMessage, type, request) {}

void VelmarPropertyMessage::FillReadResponse(const char* value) {
    VelmarMessage* envelope = Envelope();
    if (envelope == nullptr) return;
    envelope->mutable_property_message()->mutable_read_response()->set_value(value);
}

void VelmarPropertyMessage::FillWriteResponse() {
    VelmarMessage* envelope = Envelope();
    if (envelope != nullptr) envelope->mutable_property_message()->mutable_write_response();
}

VelmarFileMessage::VelmarFileMessage(VelmarMessageType type, SitMessage* request)
    : PayloadMessage(VelmarMessage::kFileMessage, type, request) {}

void VelmarFileMessage::FillWriteResponse() {
    VelmarMessage* envelope = Envelope();
    if (envelope != nullptr) envelope->mutable_file_message()->mutable_file_write_response();
}

void VelmarFileMessage::SetFileMessageResult(velmar_message::FileMessageResult result) {
    VelmarMessage* envelope = Envelope();
    if (envelope == nullptr) return;
    envelope->mutable_file_message()->mutable_file_write_response()->set_file_result(result);
}
