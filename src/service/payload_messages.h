#pragma once

#include <memory>
#include <string>

#include "message/sit_message.h"

// A message that a feature sends; owns one SitMessage. One thread at a time uses it.
class PayloadMessage {
  public:
    // A new message with the header of payload `id` and `type`. A request takes a new token. A
    // response to `request` (borrowed) takes its token, if it has one.
    PayloadMessage(velmar_message::VelmarMessage::PayloadCase id,
                   velmar_message::VelmarMessageType type, SitMessage* request = nullptr);

    // A clone of `message`, which the caller keeps; holds no message when `message` is null.
    explicit PayloadMessage(SitMessage* message);

    virtual ~PayloadMessage();

    PayloadMessage(const PayloadMessage&) = delete;
    PayloadMessage& operator=(const PayloadMessage&) = delete;

    // The message, borrowed; null when this was made from null.
    SitMessage* GetSitMessage() const;

    // Sets the outcome that the modem is told. A response carries none until then. Does nothing
    // when there is no message.
    void SetResult(velmar_message::VelmarResult result);

  protected:
    // The envelope; null when there is none.
    velmar_message::VelmarMessage* Envelope();

    // The same for a Fill operation, with a log line when there is none.
    velmar_message::VelmarMessage* EnvelopeToFill();

    std::unique_ptr<SitMessage> sit_message;
};

// A message about the modem's statistics.
class VelmarModemStatMessage : public PayloadMessage {
  public:
    // A new message of `type`.
    explicit VelmarModemStatMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; holds no message when `message` is null.
    explicit VelmarModemStatMessage(SitMessage* message) : PayloadMessage(message) {}

    // Makes the payload a request to keep statistics for `module`. A negative `value` or a `type`
    // of 0 leaves the field unset. Returns kStatusSuccess, kStatusInvalid for an empty module
    // (nothing is changed) or kStatusNotFound when there is no message.
    int FillEnableRequest(const std::string& module, int value, unsigned int type);

    // Makes the payload a request for a report. Returns kStatusSuccess, or kStatusNotFound when
    // there is no message.
    int FillReportRequest();
};

// A message about the modem's extended logs.
class VelmarExtendedLogMessage : public PayloadMessage {
  public:
    // A new message of `type`.
    explicit VelmarExtendedLogMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; holds no message when `message` is null.
    explicit VelmarExtendedLogMessage(SitMessage* message) : PayloadMessage(message) {}

    // Makes the payload a request for the logs. Returns kStatusSuccess, or kStatusNotFound when
    // there is no message.
    int FillRequest();
};

// A message about the modem's lines in the phone's log.
class VelmarUserspaceLogMessage : public PayloadMessage {
  public:
    // A new message of `type`.
    explicit VelmarUserspaceLogMessage(velmar_message::VelmarMessageType type);

    // A clone of `message`, which the caller keeps; holds no message when `message` is null.
    explicit VelmarUserspaceLogMessage(SitMessage* message) : PayloadMessage(message) {}

    // Makes the payload a request to enable `name`. Returns kStatusSuccess, kStatusInvalid for an
    // empty name (nothing is changed) or kStatusNotFound when there is no message.
    int FillEnableRequest(const std::string& name);
};

// The response to a property request.
class VelmarPropertyMessage : public PayloadMessage {
  public:
    // A new message of `type` with the token of `request` (borrowed), if that has one.
    VelmarPropertyMessage(velmar_message::VelmarMessageType type, SitMessage* request);

    // Makes the payload the response to a read, with a copy of `value`. Does nothing when there is
    // no message, as the Fill operations below.
    void FillReadResponse(const char* value);

    // Makes the payload the response to a write.
    void FillWriteResponse();
};

// The response to a file write request.
class VelmarFileMessage : public PayloadMessage {
  public:
    // A new message of `type` with the token of `request` (borrowed), if that has one.
    VelmarFileMessage(velmar_message::VelmarMessageType type, SitMessage* request);

    // Makes the payload the response to a write.
    void FillWriteResponse();

    // Makes the payload the response to a write, with `result`.
    void SetFileMessageResult(velmar_message::FileMessageResult result);
};
