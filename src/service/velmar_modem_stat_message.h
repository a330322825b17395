#pragma once

#include <string>

#include "service/diagnostic_message.h"

// A message about the modem's statistics.
class VelmarModemStatMessage : public DiagnosticMessage {
  public:
    // A new message of `type`.
    explicit VelmarModemStatMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; nothing for null.
    explicit VelmarModemStatMessage(SitMessage* message);

    // Makes the payload a request to keep statistics for `module`. A `value` below 0 and a `type`
    // of 0 are not given: a fresh request then lacks them. Returns 0, 2 for an empty module
    // (nothing is changed) or 8 when there is no message.
    int FillEnableRequest(const std::string& module, int value, unsigned int type);

    // Makes the payload a request for a report. Returns 0, or 8 when there is no message.
    int FillReportRequest();
};
