#include "service/velmar_property_message.h"

using velmar_message::VelmarMessage;

VelmarPropertyMessage::VelmarPropertyMessage(velmar_message::VelmarMessageType type,
                                             SitMessage* request)
    : ReplyMessage(VelmarMessage::kPropertyMessage, type, request) {}

void VelmarPropertyMessage::FillReadResponse(const char* value) {
    if (!message) return;
    VelmarMessage* envelope = message->GetVelmarMessage();
    envelope->mutable_property_message()->mutable_read_response()->set_value(value);
}

void VelmarPropertyMessage::FillWriteResponse() {
    if (message) message->GetVelmarMessage()->mutable_property_message()->mutable_write_response();
}
