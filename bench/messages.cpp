#include "bench/messages.h"

#include <stdexcept>

#include "google/protobuf/text_format.h"

#include "proto/velmar_message.pb.h"

namespace velmar_bench {

namespace {

constexpr size_t kLogText = 200;

}  // namespace

std::string Encode(std::string text) {
    const size_t place = text.find_first_of("#@");
    if (place != std::string::npos) {
        text.replace(place, 1, text[place] == '#' ? kLogText : kChunkSize, 'x');
    }
    velmar_message::VelmarMessage message;
    if (!google::protobuf::TextFormat::ParseFromString(text, &message)) {
        throw std::runtime_error("expected a message, found " + text);
    }
    return message.SerializeAsString();
}

std::string EncodeChunk(size_t total, size_t offset, size_t size) {
    return Encode(
            "type: REQUEST token: 7 file_message { file_write_request {"
            " file_dir: FILE_DIRECTORY_MDS file_name: '" +
            std::string(kFileName) + "' max_data_size: " + std::to_string(total) +
            " offset: " + std::to_string(offset) + " data: '" + std::string(size, 'x') + "' } }");
}

}  // namespace velmar_bench
