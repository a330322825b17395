#pragma once

#include <memory>

#include "proto/velmar_message.pb.h"

#include "message/token_gen.h"

// Owns one envelope: a message received from the modem or built for it.
//
// A message has no lock: one thread at a time uses it.
class SitMessage {
  public:
    // An empty envelope, to be given a header and a payload.
    SitMessage();

    // Decodes `length` bytes at `data`, which is one whole message. Null or empty input gives a
    // message without an envelope. Input that does not parse is logged; the fields decoded before
    // the error are kept, and a type among them still decides the dispatch.
    SitMessage(const char* data, int length);

    virtual ~SitMessage();

    // A deep copy, owned by the caller.
    virtual SitMessage* Clone() const;

    SitMessage(const SitMessage&) = delete;
    SitMessage& operator=(const SitMessage&) = delete;

    // The envelope, borrowed; null when the message was made from empty input.
    velmar_message::VelmarMessage* GetVelmarMessage();

    // The token, or kNoToken when there is none.
    unsigned int GetToken() const;

    // The type, or UNKNOWN_TYPE when there is none.
    velmar_message::VelmarMessageType GetType() const;

    // The number of the payload that is there, 0 when there is none. The envelope's own message_id
    // field is not looked at.
    int GetMessageId() const;

    // The result, or FAILURE when there is none.
    velmar_message::VelmarResult GetResult() const;

    // Whether the type is present and equals the one named.
    bool IsRequest() const;
    bool IsResponse() const;
    bool IsIndication() const;

    // Sets the message id and the type; a request also takes the next token. Returns false when
    // there is no envelope.
    bool InitialHeader(velmar_message::VelmarMessage::PayloadCase id,
                       velmar_message::VelmarMessageType type);

    // Encodes into `buffer`, which holds `length` bytes. Logs and returns false when there is no
    // envelope or the encoding does not fit.
    bool SerializeSendMessage(char* buffer, int length);

    // The encoded size in bytes. Logs when there is no envelope (0) or the size is below 1.
    int GetProtobufSerialDataLength();

  protected:
    std::unique_ptr<velmar_message::VelmarMessage> message;
    // Null for a message made from received bytes: such a message never takes a token.
    TokenGen* token_gen;

  private:
    bool HasType(velmar_message::VelmarMessageType type) const;
};
