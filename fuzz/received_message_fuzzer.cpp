// Input: the bytes of one message, as the channel gives them. Half of the mutations are of the
// bytes, half of the message that they stand for.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "checked_service.h"
#include "message_mutator.h"

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned int seed) {
    velmar_message::VelmarMessage message;
    const bool is_whole = message.ParseFromArray(data, static_cast<int>(size));
    if (!is_whole || seed % 2 == 0) return LLVMFuzzerMutate(data, size, max_size);
    MessageMutator(seed).Mutate(&message);
    const std::string bytes = message.SerializeAsString();
    if (bytes.empty() || bytes.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
    std::copy(bytes.begin(), bytes.end(), data);
    return bytes.size();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    CheckedService service;
    service.Receive(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
