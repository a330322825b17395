#pragma once

#include <string>

#include "service/diagnostic_message.h"

// A message about the modem's lines in the phone's log.
class VelmarUserspaceLogMessage : public DiagnosticMessage {
  public:
    // A new message of `type`.
    explicit VelmarUserspaceLogMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; nothing for null.
    explicit VelmarUserspaceLogMessage(SitMessage* message);

    // Makes the payload a request to enable `name`. Returns 0, 2 for an empty name (nothing is
    // changed) or 8 when there is no message.
    int FillEnableRequest(const std::string& name);
};
