#include "service/velmar_extended_log_message.h"

#include "message/velmar_status.h"

using velmar_message::VelmarMessage;

VelmarExtendedLogMessage::VelmarExtendedLogMessage(velmar_message::VelmarMessageType type)
    : DiagnosticMessage(VelmarMessage::kExtendedLogMessage, type) {}

VelmarExtendedLogMessage::VelmarExtendedLogMessage(SitMessage* message)
    : DiagnosticMessage(message) {}

int VelmarExtendedLogMessage::FillRequest() {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    envelope->mutable_extended_log_message()->mutable_request();
    return kStatusSuccess;
}
