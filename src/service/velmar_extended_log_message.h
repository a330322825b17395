#pragma once

#include "service/diagnostic_message.h"

// A message about the modem's extended logs.
class VelmarExtendedLogMessage : public DiagnosticMessage {
  public:
    // A new message of `type`.
    explicit VelmarExtendedLogMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; nothing for null.
    explicit VelmarExtendedLogMessage(SitMessage* message);

    // Makes the payload a request for the logs. Returns 0, or 8 when there is no message.
    int FillRequest();
};
