#pragma once

#include <memory>

#include "message/sit_message.h"

// Builds the answer to a message of the modem. Used by one thread at a time.
class ReplyMessage {
  public:
    // A new message with the header of payload `id` and `type` and, if `request` (borrowed) has
    // one, its token.
    ReplyMessage(velmar_message::VelmarMessage::PayloadCase id,
                 velmar_message::VelmarMessageType type, SitMessage* request);
    virtual ~ReplyMessage();

    ReplyMessage(const ReplyMessage&) = delete;
    ReplyMessage& operator=(const ReplyMessage&) = delete;

    // The message, borrowed.
    SitMessage* GetSitMessage() const;

    // Sets the outcome that the modem is told. An answer says none until then.
    void SetResult(velmar_message::VelmarResult result);

  protected:
    std::unique_ptr<SitMessage> message;
};
