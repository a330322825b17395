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

#include "sim/modem/errors.h"
#include "sim/modem/simulated_modem.h"
#include "sim/tool/differences.h"
#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

using velmar_message::VelmarMessage;

constexpr char kStoredMode[] = "0666";
constexpr uint64_t kMaxFileSize = std::numeric_limits<uint32_t>::max();
// How much of the stored file is compared at a time, in bytes.
constexpr uint64_t kComparedBytes = 1 << 16;

// Size in bytes of what is pushed; throws std::filesystem::filesystem_error when there is no such
// file.
uint64_t SizeOf(const Push& push) {
    return push.has_source() ? std::filesystem::file_size(push.source()) : push.generated().size();
}

uint64_t ChunkCount(const Push& push, uint64_t size) {
    return (size + push.chunk_size() - 1) / push.chunk_size();
}

uint64_t BytesInChunk(const Push& push, uint64_t size, uint64_t index) {
    return std::min<uint64_t>(push.chunk_size(), size - index * push.chunk_size());
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

VelmarMessage MakeChunk(const Push& push, uint64_t size, uint64_t index, const std::string& data) {
    VelmarMessage message;
    auto* file = message.mutable_file_message();
    message.set_message_id(VelmarMessage::kFileMessage);
    if (IsRequest(push, index)) {
        message.set_type(velmar_message::REQUEST);
        message.set_token(static_cast<uint32_t>(index));
        FillWrite(push, size, index, data, file->mutable_file_write_request());
    } else {
        message.set_type(velmar_message::INDICATION);
        FillWrite(push, size, index, data, file->mutable_file_write_indication());
    }
    return message;
}

// What stands around the data grows with the offset and the token; the last chunk may be short, so
// that the ones before it count too.
std::string MessageSizeError(const Push& push, uint64_t size) {
    const uint64_t count = ChunkCount(push, size);
    for (uint64_t index = count - std::min<uint64_t>(count, 3); index < count; ++index) {
        const std::string data(BytesInChunk(push, size, index), '\0');
        const size_t message_size = MakeChunk(push, size, index, data).ByteSizeLong();
        if (message_size <= kMaxMessageForPhone) continue;
        return "expected messages of at most " + std::to_string(kMaxMessageForPhone) +
               " bytes, with a chunk_size of " + std::to_string(push.chunk_size()) + " one has " +
               std::to_string(message_size);
    }
    return "";
}

}  // namespace

std::string PushError(const Push& push) try {
    if (push.file_dir() != velmar_message::FILE_DIRECTORY_MDS &&
        push.file_dir() != velmar_message::FILE_DIRECTORY_REPLAY) {
        return "expected a file_dir of FILE_DIRECTORY_MDS or FILE_DIRECTORY_REPLAY";
    }
    if (!PhoneFolder::IsPhonePath("/" + push.file_name())) {
        return "expected a file_name without \"..\" and byte 0, found " +
               QuoteBytes(push.file_name());
    }
    const uint64_t size = SizeOf(push);
    if (size < 1 || size > kMaxFileSize) {
        return "expected a file of 1 to " + std::to_string(kMaxFileSize) + " bytes, found " +
               std::to_string(size);
    }
    if (push.chunk_size() < 1 || push.chunk_size() > kMaxMessageForPhone) {
        return "expected a chunk_size of 1 to " + std::to_string(kMaxMessageForPhone) + ", found " +
               std::to_string(push.chunk_size());
    }
    return MessageSizeError(push, size);
} catch (const std::filesystem::filesystem_error& error) {
    return push.source() + " cannot be read: " + error.code().message();
}

FilePush::FilePush(const Push& push, const PhoneFolder& folder)
    : what(push),
      phone(folder),
      total(SizeOf(push)),
      target_path(std::string(push.file_dir() == velmar_message::FILE_DIRECTORY_MDS
                                      ? kMdsFiles
                                      : kReplayFiles) +
                  "/" + push.file_name()),
      earlier_target(open(folder.HostPath(target_path).c_str(), O_PATH | O_CLOEXEC)),
      read_source(OpenSource(push)) {}

FilePush::ByteSource FilePush::OpenSource(const Push& push) {
    if (push.has_generated()) {
        // A byte a number, so that the content does not depend on the size of the chunks.
        return [engine = std::mt19937_64(push.generated().seed())](size_t size) mutable {
            std::string bytes(size, '\0');
            for (char& byte : bytes) byte = static_cast<char>(engine() & 0xFF);
            return bytes;
        };
    }
    auto stream = std::make_shared<std::ifstream>(push.source(), std::ios::binary);
    if (!*stream) ThrowErrno("open " + push.source());
    return [stream, path = push.source()](size_t size) {
        std::string bytes(size, '\0');
        if (!stream->read(bytes.data(), static_cast<std::streamsize>(size))) {
            throw std::runtime_error(path + " is shorter than it was, or not readable");
        }
        return bytes;
    };
}

bool FilePush::Next() {
    if (done() == total) return false;
    const std::string data = read_source(BytesInChunk(what, total, chunks_made));
    chunk = MakeChunk(what, total, chunks_made++, data);
    return true;
}

std::optional<VelmarMessage> FilePush::ExpectedResponse() const {
    if (chunk.type() != velmar_message::REQUEST) return std::nullopt;
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
    return "chunk " + std::to_string(chunks_made) + " of " + std::to_string(chunk_count()) +
           " at offset " + std::to_string((chunks_made - 1) * what.chunk_size());
}

uint64_t FilePush::done() const {
    return std::min<uint64_t>(chunks_made * what.chunk_size(), total);
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
    struct stat earlier = {};
    struct stat now = {};
    // Nothing else tells whether an indication was dealt with yet: the file that it is to replace
    // may look the same.
    if (!ExpectedResponse() && fstat(earlier_target, &earlier) == 0 &&
        lstat(phone.HostPath(target_path).c_str(), &now) == 0 && now.st_ino == earlier.st_ino) {
        return target_path + " was not replaced";
    }
    return ContentDifference();
}

std::string FilePush::ContentDifference() const {
    std::ifstream stored(phone.HostPath(target_path), std::ios::binary);
    const ByteSource read_expected = OpenSource(what);
    for (uint64_t at = 0; at < total; at += kComparedBytes) {
        const std::string expected = read_expected(std::min(kComparedBytes, total - at));
        // One more, so that a longer file differs too.
        std::string actual(at + expected.size() == total ? expected.size() + 1 : expected.size(),
                           '\0');
        stored.read(actual.data(), static_cast<std::streamsize>(actual.size()));
        actual.resize(static_cast<size_t>(stored.gcount()));
        if (expected == actual) continue;
        const auto first =
                std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
        return target_path + " differs from byte " +
               std::to_string(at + static_cast<uint64_t>(first.first - expected.begin())) + " on" +
               ExpectedActual(HexBytes(std::string(first.first, expected.end())),
                              HexBytes(std::string(first.second, actual.end())));
    }
    return "";
}

}  // namespace velmar_sim
