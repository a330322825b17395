#include "service/diagnostic_message.h"

#include <android/log.h>

#include "message/log_tag.h"

using velmar_message::VelmarMessage;

DiagnosticMessage::DiagnosticMessage(VelmarMessage::PayloadCase id,
                                     velmar_message::VelmarMessageType type)
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
    if (envelope == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "sit_message is invalid");
    }
    return envelope;
}
