#pragma once

#include "service/reply_message.h"

// Builds the answer to a property request.
class VelmarPropertyMessage : public ReplyMessage {
  public:
    // A new message of `type` with the token of `request` (borrowed), if that has one.
    VelmarPropertyMessage(velmar_message::VelmarMessageType type, SitMessage* request);

    // Makes the payload the answer to a read, with a copy of `value`.
    void FillReadResponse(const char* value);

    // Makes the payload the answer to a write.
    void FillWriteResponse();
};
