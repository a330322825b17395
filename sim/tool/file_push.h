#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "android-base/unique_fd.h"

#include "proto/velmar_message.pb.h"
#include "sim/modem/phone_folder.h"
#include "sim/tool/scenario.pb.h"

namespace velmar_sim {

// What keeps the push from being played, as far as that can be told beforehand; empty when nothing
// does. Looks at its source. Any thread.
std::string PushError(const Push& push);

// A file on its way from the modem to the phone. Its bytes are made or read, and forgotten, chunk
// by chunk; those of the stored file are compared with the same bytes, made or read again. One
// thread.
class FilePush {
  public:
    // `push`, which has no error, and `folder` are borrowed. Throws std::runtime_error when the
    // source cannot be opened.
    FilePush(const Push& push, const PhoneFolder& folder);

    // Makes the next chunk; false after the last one. Throws std::runtime_error when the source
    // cannot be read.
    bool Next();

    // The message that carries the chunk made last.
    const velmar_message::VelmarMessage& message() const { return chunk; }

    // The response to it; nothing for an indication.
    std::optional<velmar_message::VelmarMessage> ExpectedResponse() const;

    // "chunk 3 of 70 at offset 120000".
    std::string ChunkName() const;

    // What is wrong with the stored file, once all chunks are sent; empty when nothing is. Throws
    // std::runtime_error when the source cannot be read.
    std::string StoredDifference() const;

    // Path of the stored file on the phone.
    const std::string& target() const { return target_path; }
    uint64_t size() const { return total; }
    // Bytes in all chunks made so far.
    uint64_t done() const;
    uint64_t chunk_count() const;

  private:
    // Gives the following bytes, so many.
    using ByteSource = std::function<std::string(size_t)>;

    static ByteSource OpenSource(const Push& push);
    std::string ContentDifference() const;

    const Push& what;
    const PhoneFolder& phone;
    const uint64_t total;
    const std::string target_path;
    // Keeps the inode of a target of that name from being used again for the new one.
    const android::base::unique_fd earlier_target;
    const ByteSource read_source;
    uint64_t chunks_made = 0;
    velmar_message::VelmarMessage chunk;
};

}  // namespace velmar_sim
