#include "service/reply_message.h"

using velmar_message::VelmarMessage;

ReplyMessage::ReplyMessage(VelmarMessage::PayloadCase id, velmar_message::VelmarMessageType type,
                           SitMessage* request)
    : message(std::make_unique<SitMessage>()) {
    message->InitialHeader(id, type);
    const VelmarMessage* asked = request != nullptr ? request->GetVelmarMessage() : nullptr;
    if (asked != nullptr && asked->has_token()) {
        message->GetVelmarMessage()->set_token(asked->token());
    }
}

ReplyMessage::~ReplyMessage() = default;

SitMessage* ReplyMessage::GetSitMessage() const {
    return message.get();
}

void ReplyMessage::SetResult(velmar_message::VelmarResult result) {
    if (message) message->GetVelmarMessage()->set_result(result);
}
