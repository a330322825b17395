#include "sim/tool/file_push.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <system_error>

#include "sim/modem/errors.h"
#include "sim/modem/simulated_modem.h"
#include "sim/tool/differences.h"
#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

using velmar_message::VelmarMessage;

constexpr char kStoredMode[] = "0666";
// How much of the stored file is compared at a time.
constexpr uint64_t kComparedBytes = 1 << 16;
constexpr uint64_t kMaxFileSize = std::numeric_limits<uint32_t>::max();

// Size in bytes of what is pushed; throws std::filesystem::filesystem_error when there is no such
// file.
uint64_t SizeOf(const Push& push) {
    if (!push.has_source()) return push.generated().size();
    return std::filesystem::file_size(push.source());
}

uint64_t ChunkCount(const Push& push, uint64_t size) {
    return (size + push.chunk_size() - 1) / push.chunk_size();
}

bool IsRequest(const Push& push, uint64_t index) {
    return push.as() == Push::REQUEST || (push.as() == Push::ALTERNATING && index % 2 == 0);
}

template <typename FileWrite>
void FillWrite(const Push& push, uint64_t size, uint64_t index, const std::string& data,
               FileWrite* write) {
    write->set_file_dir(push.file_dir());
    write->set_file_name(push.file_name());
    write->set_max_data_size(static_cast<uint32_t>(size));
    write->set_offset(static_cast<uint32_t>(index * push.chunk_size()));
    write->set_data(data);
}

void FillChunk(const Push& push, uint64_t size, uint64_t index, const std::string& data,
               VelmarMessage* message) {
    auto* file = message->mutable_file_message();
    message->set_message_id(VelmarMessage::kFileMessage);
    if (IsRequest(push, index)) {
        message->set_type(velmar_message::REQUEST);
        message->set_token(static_cast<uint32_t>(index));
        FillWrite(push, size, index, data, file->mutable_file_write_request());
    } else {
        message->set_type(velmar_message::INDICATION);
        message->clear_token();
        FillWrite(push, size, index, data, file->mutable_file_write_indication());
    }
}

uint64_t BytesInChunk(const Push& push, uint64_t size, uint64_t index) {
    return std::min<uint64_t>(push.chunk_size(), size - index * push.chunk_size());
}

// Size in bytes of the push's largest message. What stands around the data grows with the offset
// and the token; the last chunk may be short, so that the ones before it count too.
size_t LargestMessage(const Push& push, uint64_t size) {
    const uint64_t count = ChunkCount(push, size);
    size_t largest = 0;
    for (uint64_t index = count - std::min<uint64_t>(count, 3); index < count; ++index) {
        VelmarMessage message;
        FillChunk(push, size, index, std::string(BytesInChunk(push, size, index), '\0'), &message);
        largest = std::max(largest, message.ByteSizeLong());
    }
    return largest;
}

std::string MessageSizeFault(const Push& push, uint64_t size) {
    // Checked first, so that no larger message is made to be measured.
    if (push.chunk_size() > 0 && push.chunk_size() <= kMaxMessageForPhone) {
        const size_t largest = LargestMessage(push, size);
        if (largest <= kMaxMessageForPhone) return "";
        return "expected messages of at most " + std::to_string(kMaxMessageForPhone) +
               " bytes, with a chunk_size of " + std::to_string(push.chunk_size()) + " one has " +
               std::to_string(largest);
    }
    return "expected a chunk_size of 1 to " + std::to_string(kMaxMessageForPhone) + ", found " +
           std::to_string(push.chunk_size());
}

std::string DirectoryOf(const Push& push) {
    return push.file_dir() == velmar_message::FILE_DIRECTORY_MDS ? kMdsFiles : kReplayFiles;
}

}  // namespace

std::string PushFault(const Push& push) try {
    if (push.origin_case() == Push::ORIGIN_NOT_SET) return "expected source or generated";
    if (push.file_dir() != velmar_message::FILE_DIRECTORY_MDS &&
        push.file_dir() != velmar_message::FILE_DIRECTORY_REPLAY) {
        return "expected a file_dir of FILE_DIRECTORY_MDS or FILE_DIRECTORY_REPLAY";
    }
    if (!PhoneFolder::IsPhonePath("/" + push.file_name())) {
        return "expected a file_name without \"..\", found \"" + push.file_name() + "\"";
    }
    const uint64_t size = SizeOf(push);
    if (size < 1 || size > kMaxFileSize) {
        return "expected a file of 1 to " + std::to_string(kMaxFileSize) + " bytes, found " +
               std::to_string(size);
    }
    return MessageSizeFault(push, size);
} catch (const std::filesystem::filesystem_error& error) {
    return push.source() + " cannot be read: " + error.code().message();
}

FilePush::FilePush(const Push& push, const PhoneFolder& folder)
    : what(push),
      phone(folder),
      total(SizeOf(push)),
      target_path(DirectoryOf(push) + "/" + push.file_name()),
      earlier_target(open(folder.HostPath(target_path).c_str(), O_PATH | O_CLOEXEC)),
      read_source(OpenSource(push)) {}

FilePush::ByteSource FilePush::OpenSource(const Push& push) {
    if (push.has_generated()) {
        // Bytes are cut from a row of words wherever a chunk ends, so that the content does not
        // depend on the size of the chunks.
        return [engine = std::mt19937_64(push.generated().seed()), word = uint64_t{0},
                left = 0](std::string* piece) mutable {
            for (char& byte : *piece) {
                if (left == 0) word = engine();
                left = (left + 7) % 8;
                byte = static_cast<char>(word & 0xFF);
                word >>= 8;
            }
        };
    }
    auto stream = std::make_shared<std::ifstream>(push.source(), std::ios::binary);
    if (!*stream) ThrowErrno("open " + push.source());
    return [stream, path = push.source()](std::string* piece) {
        stream->read(piece->data(), static_cast<std::streamsize>(piece->size()));
        if (!*stream) throw std::runtime_error(path + " is shorter than it was, or not readable");
    };
}

bool FilePush::Next() {
    if (done() >= total) return false;
    if (!chunk_bytes.empty()) ++index;
    offset = done();
    chunk_bytes.resize(BytesInChunk(what, total, index));
    read_source(&chunk_bytes);
    FillChunk(what, total, index, chunk_bytes, &chunk);
    return true;
}

std::optional<VelmarMessage> FilePush::ExpectedResponse() const {
    if (!IsRequest(what, index)) return std::nullopt;
    VelmarMessage response;
    response.set_type(velmar_message::RESPONSE);
    response.set_message_id(VelmarMessage::kFileMessage);
    response.set_token(chunk.token());
    response.set_result(velmar_message::SUCCESS);
    response.mutable_file_message()->mutable_file_write_response()->set_file_result(
            velmar_message::FILE_RESULT_DEFAULT);
    return response;
}

std::string FilePush::ChunkName() const {
    return "chunk " + std::to_string(index + 1) + " of " + std::to_string(chunk_count()) +
           " at offset " + std::to_string(offset);
}

uint64_t FilePush::chunk_count() const {
    return ChunkCount(what, total);
}

std::string FilePush::StoredDifference() const {
    FileState unfinished;
    unfinished.set_path(std::string(kUnfinishedFiles) + "/" + what.file_name());
    unfinished.set_missing(true);
    FileState stored;
    stored.set_path(target_path);
    stored.set_mode(kStoredMode);
    for (const FileState& expected : {unfinished, stored}) {
        std::string difference = FileDifference(expected, phone);
        if (!difference.empty()) return difference;
    }
    const std::string host_path = phone.HostPath(target_path);
    struct stat earlier;
    struct stat now;
    if (lstat(host_path.c_str(), &now) != 0) return target_path + " does not exist";
    // Nothing else tells whether an indication was dealt with yet: the file that it is to replace
    // may look the same.
    const bool was_there = earlier_target >= 0 && fstat(earlier_target.get(), &earlier) == 0;
    if (was_there && !IsRequest(what, index) && now.st_ino == earlier.st_ino) {
        return target_path + " was not replaced";
    }
    if (static_cast<uint64_t>(now.st_size) != total) {
        return target_path + " has another size" +
               ExpectedActual(std::to_string(total), std::to_string(now.st_size));
    }
    return ContentDifference();
}

// What is wrong with the bytes of the stored file, which has the right size.
std::string FilePush::ContentDifference() const {
    std::ifstream stored(phone.HostPath(target_path), std::ios::binary);
    const ByteSource read_expected = OpenSource(what);
    for (uint64_t at = 0; at < total; at += kComparedBytes) {
        std::string expected(std::min(kComparedBytes, total - at), '\0');
        std::string actual = expected;
        read_expected(&expected);
        if (!stored.read(actual.data(), static_cast<std::streamsize>(actual.size()))) {
            return target_path + " cannot be read from byte " + std::to_string(at) + " on";
        }
        if (expected == actual) continue;
        const auto first = std::mismatch(expected.begin(), expected.end(), actual.begin());
        return target_path + " differs from byte " +
               std::to_string(at + static_cast<uint64_t>(first.first - expected.begin())) + " on" +
               ExpectedActual(HexBytes(std::string(first.first, expected.end())),
                              HexBytes(std::string(first.second, actual.end())));
    }
    return "";
}

}  // namespace velmar_sim
