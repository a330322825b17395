#pragma once

#include "service/reply_message.h"

// Builds the answer to a file write request.
class VelmarFileMessage : public ReplyMessage {
  public:
    // A new message of `type` with the token of `request` (borrowed), if that has one.
    VelmarFileMessage(velmar_message::VelmarMessageType type, SitMessage* request);

    // Makes the payload the answer to a write.
    void FillWriteResponse();

    // Makes the payload the answer to a write, with `result`.
    void SetFileMessageResult(velmar_message::FileMessageResult result);
};
