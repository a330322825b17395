// Input: a MessageSequence as text. Mutations keep it one.

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "checked_service.h"
#include "message_mutator.h"

using google::protobuf::TextFormat;
using velmar_fuzz::MessageSequence;

namespace {

bool Read(const uint8_t* data, size_t size, MessageSequence* sequence) {
    return TextFormat::ParseFromString({reinterpret_cast<const char*>(data), size}, sequence);
}

// Gives the input back as it was where the sequence does not fit.
size_t Write(const MessageSequence& sequence, uint8_t* data, size_t size, size_t max_size) {
    std::string text;
    TextFormat::PrintToString(sequence, &text);
    if (text.empty() || text.size() > max_size) return size;
    std::copy(text.begin(), text.end(), data);
    return text.size();
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned int seed) {
    MessageSequence sequence;
    (void)Read(data, size, &sequence);
    MessageMutator(seed).Mutate(&sequence);
    return Write(sequence, data, size, max_size);
}

extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t* data1, size_t size1,
                                            const uint8_t* data2, size_t size2, uint8_t* out,
                                            size_t max_out_size, unsigned int seed) {
    MessageSequence sequence;
    MessageSequence other;
    (void)Read(data1, size1, &sequence);
    (void)Read(data2, size2, &other);
    MessageMutator(seed).CrossOver(&sequence, other);
    return Write(sequence, out, 0, max_out_size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    MessageSequence sequence;
    if (!Read(data, size, &sequence)) return 0;
    CheckedService service;
    for (const auto& message : sequence.messages()) {
        const std::string bytes = message.SerializeAsString();
        if (!bytes.empty()) service.Receive(bytes);
    }
    return 0;
}
