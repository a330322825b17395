#include "message/sit_message.h"

#include "base/log.h"

using velmar_message::VelmarMessage;
using velmar_message::VelmarMessageType;
using velmar_message::VelmarResult;

SitMessage::SitMessage()
    : message(std::make_unique<VelmarMessage>()), token_gen(TokenGen::GetInstance()) {}

SitMessage::SitMessage(const char* data, int length) : token_gen(nullptr) {
    if (data == nullptr || length < 1) return;
    message = std::make_unique<VelmarMessage>();
    if (!message->ParseFromArray(data, length)) {
        ALOGE("ParseFromArray failed");
    }
}

SitMessage::~SitMessage() = default;

SitMessage* SitMessage::Clone() const {
    auto* copy = new SitMessage();
    if (message) {
        copy->message->CopyFrom(*message);
    } else {
        copy->message.reset();
    }
    return copy;
}

VelmarMessage* SitMessage::GetVelmarMessage() {
    return message.get();
}

unsigned int SitMessage::GetToken() const {
    return message && message->has_token() ? message->token() : kNoToken;
}

VelmarMessageType SitMessage::GetType() const {
    return message && message->has_type() ? message->type() : velmar_message::UNKNOWN_TYPE;
}

int SitMessage::GetMessageId() const {
    return message ? message->payload_case() : VelmarMessage::PAYLOAD_NOT_SET;
}

VelmarResult SitMessage::GetResult() const {
    return message && message->has_result() ? message->result() : velmar_message::FAILURE;
}

bool SitMessage::HasType(VelmarMessageType type) const {
    return message && message->has_type() && message->type() == type;
}

bool SitMessage::IsRequest() const {
    return HasType(velmar_message::REQUEST);
}

bool SitMessage::IsResponse() const {
    return HasType(velmar_message::RESPONSE);
}

bool SitMessage::IsIndication() const {
    return HasType(velmar_message::INDICATION);
}

bool SitMessage::InitialHeader(VelmarMessage::PayloadCase id, VelmarMessageType type) {
    if (!message) return false;
    message->set_message_id(id);
    message->set_type(type);
    if (type == velmar_message::REQUEST && token_gen != nullptr) {
        message->set_token(token_gen->GetNext());
    }
    return true;
}

bool SitMessage::SerializeSendMessage(char* buffer, int length) {
    if (!message) {
        ALOGE("Message not exist");
        return false;
    }
    if (!message->SerializeToArray(buffer, length)) {
        ALOGE("SerializeToArray failed!");
        return false;
    }
    return true;
}

int SitMessage::GetProtobufSerialDataLength() {
    if (!message) {
        ALOGE("Message not exist");
        return 0;
    }
    int length = static_cast<int>(message->ByteSizeLong());
    if (length < 1) {
        ALOGE("Protobuf length is invalid %d", length);
    }
    return length;
}
