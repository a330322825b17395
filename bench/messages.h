#pragma once

#include <cstddef>
#include <string>

// What a modem sends, and what the service responds, as text: see Encode. Any thread.
namespace velmar_bench {

constexpr char kFileName[] = "calibration.bin";
constexpr size_t kChunkSize = 60000;

// The shortest request: no property can have that name, so that the simulated phone looks into no
// file for it.
constexpr char kAbsentRead[] =
        "type: REQUEST token: 7 property_message { read_request { name: 'vendor.radio.' } }";
constexpr char kAbsentResponse[] =
        "type: RESPONSE message_id: 7 token: 7 result: PROPERTY_FAILURE "
        "property_message { read_response { value: '' } }";
constexpr char kChunkResponse[] =
        "type: RESPONSE message_id: 9 token: 7 result: SUCCESS "
        "file_message { file_write_response { file_result: FILE_RESULT_DEFAULT } }";
constexpr char kExtendedLog[] =
        "type: INDICATION extended_log_message { indication { name: 'radio' data: '#' } }";
constexpr char kUserspaceLog[] =
        "type: INDICATION userspace_log_message { indication { text: '#' level: 1 } }";

// One message of each kind. A chunk is the first of a larger file.
struct MessageKind {
    const char* name;
    const char* text;
    // Whether files are opened for it.
    bool needs_files = true;
};
constexpr MessageKind kKinds[] = {
        {"property read, absent", kAbsentRead, false},
        {"property read",
         "type: REQUEST token: 7 property_message { read_request { name: 'ro.product.model' } }"},
        {"property write",
         "type: REQUEST token: 7 property_message {"
         " write_request { name: 'vendor.radio.band' value: 'n78' } }"},
        {"3 temperatures",
         "type: REQUEST token: 7 modem_temperature_message { set_request {"
         " sensors { sensor: 1 temperature: 41 update: true }"
         " sensors { sensor: 2 temperature: 42 update: true }"
         " sensors { sensor: 3 temperature: 43 update: true } } }"},
        {"file chunk, request",
         "type: REQUEST token: 7 file_message { file_write_request { data: '@' file_name: 'map'"
         " max_data_size: 1000000 offset: 0 file_dir: FILE_DIRECTORY_MDS } }"},
        {"file chunk, indication",
         "type: INDICATION file_message { file_write_indication { data: '@' file_name: 'map'"
         " max_data_size: 1000000 offset: 0 file_dir: FILE_DIRECTORY_MDS } }"},
        {"extended log", kExtendedLog},
        {"user-space log", kUserspaceLog, false},
        {"statistics report",
         "type: INDICATION modem_stat_message { report_indication { data: '#' } }"},
        {"response, not awaited", "type: RESPONSE token: 7", false},
};

// The encoding of a message; '#' stands for 200 letters, '@' for kChunkSize. Throws
// std::runtime_error for other text.
std::string Encode(std::string text);

// The encoded request to store `size` bytes at `offset` of a file of `total`.
std::string EncodeChunk(size_t total, size_t offset, size_t size);

}  // namespace velmar_bench
