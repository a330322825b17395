#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "proto/velmar_message.pb.h"

// What a modem sends, and the answers to it. Any thread.
namespace velmar_bench {

constexpr char kFileName[] = "calibration.bin";
constexpr char kPropertyName[] = "ro.product.model";
constexpr char kPropertyValue[] = "Phone";
constexpr size_t kChunkSize = 60000;

// A part of a file that the modem stores, with the bytes `content`.
struct FilePart {
    std::string name = kFileName;
    velmar_message::FileDirectory directory = velmar_message::FILE_DIRECTORY_MDS;
    size_t total = 0;
    size_t offset = 0;
    std::string content;
};

// Puts `part` into `message`, which says whether it is a request or an indication.
void SetFilePart(const FilePart& part, velmar_message::VelmarMessage* message);

// The answer to `request`, but for its payload.
velmar_message::VelmarMessage AnswerTo(const velmar_message::VelmarMessage& request,
                                       velmar_message::VelmarResult result);

// The whole answer to a part of a file.
velmar_message::VelmarMessage AnswerToFilePart(const velmar_message::VelmarMessage& request,
                                               velmar_message::FileMessageResult file_result);

// The shortest request: no property can have that name, so that the simulated phone looks into no
// file for it.
velmar_message::VelmarMessage AbsentPropertyRead();
velmar_message::VelmarMessage AnswerToAbsentPropertyRead();

velmar_message::VelmarMessage FileRequest(size_t total, size_t offset, const std::string& content);
velmar_message::VelmarMessage ExtendedLog();
velmar_message::VelmarMessage UserspaceLog();

// One message of each kind. A chunk is the first of a larger file.
struct MessageKind {
    const char* name;
    velmar_message::VelmarMessage message;
    // Whether files are opened for it.
    bool needs_files;
};
std::vector<MessageKind> OneOfEachKind();

}  // namespace velmar_bench
