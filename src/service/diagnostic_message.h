#pragma once

#include <memory>

#include "message/sit_message.h"

// What the payload classes of the modem's diagnostics have in common. Used by one thread at a time.
class DiagnosticMessage {
  public:
    virtual ~DiagnosticMessage();

    DiagnosticMessage(const DiagnosticMessage&) = delete;
    DiagnosticMessage& operator=(const DiagnosticMessage&) = delete;

    // The message, borrowed; null when it was made from null.
    SitMessage* GetSitMessage() const;

  protected:
    // A new message with the header of payload `id` and `type`; a request takes a token.
    DiagnosticMessage(velmar_message::VelmarMessage::PayloadCase id,
                      velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; nothing for null.
    explicit DiagnosticMessage(SitMessage* message);

    // The envelope for a Fill operation; null, with a log line, when there is none.
    velmar_message::VelmarMessage* EnvelopeToFill();

    std::unique_ptr<SitMessage> sit_message;
};
