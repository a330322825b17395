#pragma once

#include <google/protobuf/message.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "fuzz/message_sequence.pb.h"

// libFuzzer's own mutations, which know what the service compares its input with.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

// Changes sequences of messages at random: by the schema alone, but for transfers of files whose
// chunks fit together and for names that mean something on the phone.
class MessageMutator {
  public:
    explicit MessageMutator(unsigned int seed) : random(seed) {}

    // Makes one to four changes.
    void Mutate(velmar_fuzz::MessageSequence* sequence);

    // Makes one change.
    void Mutate(google::protobuf::Message* message) { MutateMessage(message); }

    // Replaces the end of `sequence` by the end of `other`.
    void CrossOver(velmar_fuzz::MessageSequence* sequence,
                   const velmar_fuzz::MessageSequence& other);

  private:
    // A number below `limit`.
    int Draw(size_t limit);
    bool OneIn(int count) { return Draw(count) == 0; }

    void AddTransfer(velmar_fuzz::MessageSequence* sequence);
    void MutateMessage(google::protobuf::Message* message);
    void MutateRepeated(google::protobuf::Message* message,
                        const google::protobuf::FieldDescriptor* field);
    void MutateSingular(google::protobuf::Message* message,
                        const google::protobuf::FieldDescriptor* field);
    uint64_t MutateNumber(uint64_t number);
    std::string MutateText(std::string text);

    std::minstd_rand random;
};
