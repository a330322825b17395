#pragma once

#include <memory>
#include <string>

#include "message/sit_message.h"

// The messages that the features send, each around the one SitMessage that it owns. One thread at
// a time uses a message.

// What the messages about the modem's diagnostics have in common.
class DiagnosticMessage {
  public:
    virtual ~DiagnosticMessage();

    DiagnosticMessage(const DiagnosticMessage&) = delete;
    DiagnosticMessage& operator=(const DiagnosticMessage&) = delete;

    // The message, borrowed; null when this was made from null.
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

// A message about the modem's statistics.
class VelmarModemStatMessage : public DiagnosticMessage {
  public:
    // A new message of `type`.
    explicit VelmarModemStatMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; nothing for null.
    explicit VelmarModemStatMessage(SitMessage* message);

    // Makes the payload a request to keep statistics for `module`. A `value` below 0 and a `type`
    // of 0 are not given: a fresh request then lacks them. Returns kStatusSuccess, kStatusInvalid
    // for an empty module (nothing is changed) or kStatusNotFound when there is no message.
    int FillEnableRequest(const std::string& module, int value, unsigned int type);

    // Makes the payload a request for a report. Returns kStatusSuccess, or kStatusNotFound when
    // there is no message.
    int FillReportRequest();
};

// A message about the modem's extended logs.
class VelmarExtendedLogMessage : public DiagnosticMessage {
  public:
    // A new message of `type`.
    explicit VelmarExtendedLogMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; nothing for null.
    explicit VelmarExtendedLogMessage(SitMessage* message);

    // Makes the payload a request for the logs. Returns kStatusSuccess, or kStatusNotFound when
    // there is no message.
    int FillRequest();
};

// A message about the modem's lines in the phone's log.
class VelmarUserspaceLogMessage : public DiagnosticMessage {
  public:
    // A new message of `type`.
    explicit VelmarUserspaceLogMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; nothing for null.
    explicit VelmarUserspaceLogMessage(SitMessage* message);

    // Makes the payload a request to enable `name`. Returns kStatusSuccess, kStatusInvalid for an
    // empty name (nothing is changed) or kStatusNotFound when there is no message.
    int FillEnableRequest(const std::string& name);
};

// The response to a request of the modem.
class ResponseMessage {
  public:
    // A new message with the header of payload `id` and `type` and, if `request` (borrowed) has
    // one, its token.
    ResponseMessage(velmar_message::VelmarMessage::PayloadCase id,
                    velmar_message::VelmarMessageType type, SitMessage* request);
    virtual ~ResponseMessage();

    ResponseMessage(const ResponseMessage&) = delete;
    ResponseMessage& operator=(const ResponseMessage&) = delete;

    // The message, borrowed.
    SitMessage* GetSitMessage() const;

    // Sets the outcome that the modem is told. A response carries none until then.
    void SetResult(velmar_message::VelmarResult result);

  protected:
    std::unique_ptr<SitMessage> message;
};

// The response to a property request.
class VelmarPropertyMessage : public ResponseMessage {
  public:
    // A new message of `type` with the token of `request` (borrowed), if that has one.
    VelmarPropertyMessage(velmar_message::VelmarMessageType type, SitMessage* request);

    // Makes the payload the response to a read, with a copy of `value`.
    void FillReadResponse(const char* value);

    // Makes the payload the response to a write.
    void FillWriteResponse();
};

// The response to a file write request.
class VelmarFileMessage : public ResponseMessage {
  public:
    // A new message of `type` with the token of `request` (borrowed), if that has one.
    VelmarFileMessage(velmar_message::VelmarMessageType type, SitMessage* request);

    // Makes the payload the response to a write.
    void FillWriteResponse();

    // Makes the payload the response to a write, with `result`.
    void SetFileMessageResult(velmar_message::FileMessageResult result);
};
