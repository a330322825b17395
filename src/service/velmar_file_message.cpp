#include "service/velmar_file_message.h"

using velmar_message::VelmarMessage;

VelmarFileMessage::VelmarFileMessage(velmar_message::VelmarMessageType type, SitMessage* request)
    : ReplyMessage(VelmarMessage::kFileMessage, type, request) {}

void VelmarFileMessage::FillWriteResponse() {
    if (message) message->GetVelmarMessage()->mutable_file_message()->mutable_file_write_response();
}

void VelmarFileMessage::SetFileMessageResult(velmar_message::FileMessageResult result) {
    if (!message) return;
    VelmarMessage* envelope = message->GetVelmarMessage();
    envelope->mutable_file_message()->mutable_file_write_response()->set_file_result(result);
}
