#pragma once

#include "proto/velmar_message.pb.h"

namespace velmar_bench {

// What the service is measured against: for each message nothing but what cannot be left out, in
// one straight line. It makes the same system calls with the same arguments as the service does,
// logs the same lines, and decodes and encodes the same messages, with one exception: a file's
// chunk is written from where it lies in the message, which is never decoded. It checks nothing.
// Operations belong to one thread.
class BareService {
  public:
    // Answers into `answer_channel`, an open descriptor, borrowed.
    explicit BareService(int answer_channel) : channel(answer_channel) {}

    // Handles one message of the modem, `length` bytes at `data`.
    void Handle(const char* data, int length) const;

  private:
    void HandleChunk(const char* data, int length) const;
    void HandleProperty(const velmar_message::VelmarMessage& request) const;
    void HandleTemperature(const velmar_message::VelmarMessage& request) const;
    void Answer(const velmar_message::VelmarMessage& request,
                velmar_message::VelmarMessage* answer) const;

    const int channel;
};

}  // namespace velmar_bench
