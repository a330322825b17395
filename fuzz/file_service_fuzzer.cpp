// Input: parts of files, each in a line of its own, see EncodeChunk.

#include <cstddef>
#include <cstdint>
#include <sstream>

#include "fuzz_phone.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
    std::vector<std::string> messages;
    for (std::string line; std::getline(lines, line);) messages.push_back(EncodeChunk(line));
    DeliverToService(messages);
    return 0;
}
