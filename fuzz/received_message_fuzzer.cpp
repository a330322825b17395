// Input: the bytes of one message, as the channel gives them.

#include <cstddef>
#include <cstdint>

#include "fuzz_phone.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    DeliverToService({{reinterpret_cast<const char*>(data), size}});
    return 0;
}
