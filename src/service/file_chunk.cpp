#include "service/file_chunk.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "base/log.h"
#include "service/velmar_file_directory.h"

using android::base::unique_fd;
using android::base::WriteFully;

namespace {

constexpr char kTempDirectory[] = "/data/vendor/radio/modem_temp_file/";
constexpr mode_t kTempMode = 0664;
constexpr mode_t kTargetMode = 0666;

// The most that one sendfile copies, and the buffer of the copy used where sendfile does not work.
constexpr size_t kSendfileBytes = size_t{1} << 30;
constexpr size_t kCopyBufferBytes = size_t{64} << 10;

constexpr FileChunkOutcome kStored = {true, velmar_message::FILE_RESULT_DEFAULT};
constexpr FileChunkOutcome kFailed = {false, velmar_message::FILE_RESULT_DEFAULT};
constexpr FileChunkOutcome kBadDirectory = {false, velmar_message::FILE_RESULT_BAD_DIRECTORY};
constexpr FileChunkOutcome kBadOffset = {false, velmar_message::FILE_RESULT_BAD_OFFSET};

void CopyThroughBuffer(int from, int to) {
    std::unique_ptr<char[]> buffer(new char[kCopyBufferBytes]);
    while (true) {
        ssize_t count = TEMP_FAILURE_RETRY(read(from, buffer.get(), kCopyBufferBytes));
        if (count < 1 || !WriteFully(to, buffer.get(), count)) return;
    }
}

// Copies the rest of a file inside the kernel, where the file systems can do that.
void CopyFile(int from, int to) {
    ssize_t count;
    do {
        count = TEMP_FAILURE_RETRY(sendfile(to, from, nullptr, kSendfileBytes));
    } while (count > 0);
    if (count < 0 && (errno == EINVAL || errno == ENOSYS)) CopyThroughBuffer(from, to);
}

// Whether a chunk at `offset`, which is not 0, may be appended to the temporary file.
bool MatchesTempFile(const std::string& temp_path, uint32_t offset) {
    struct stat status;
    // Without a temporary file, a chunk at any offset starts one.
    if (stat(temp_path.c_str(), &status) != 0 || status.st_size == offset) return true;
    ALOGE("Bad offset 0x%X comparing to the expected one: 0x%lX", offset,
          static_cast<unsigned long>(status.st_size));
    return false;
}

bool AppendToTempFile(const std::string& temp_path, const std::string& data,
                      const FileChunkLines& lines) {
    unique_fd temp(open(temp_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kTempMode));
    if (!temp.ok()) {
        ALOGE(lines.open_failed, temp_path.c_str());
        return false;
    }
    ALOGI("size: 0x%lX", static_cast<unsigned long>(data.size()));
    if (!WriteFully(temp, data.data(), data.size())) {
        ALOGE("Failed to write temp file correctly");
        return false;
    }
    temp.reset();
    // The umask may have taken bits away.
    chmod(temp_path.c_str(), kTempMode);
    return true;
}

bool CopyToTarget(const std::string& temp_path, const std::string& target_path) {
    unique_fd temp(open(temp_path.c_str(), O_RDONLY | O_CLOEXEC));
    unique_fd target(
            open(target_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kTargetMode));
    if (!temp.ok() || !target.ok()) {
        ALOGE("File transfer failed.");
        return false;
    }
    // fchmod, not umask(): the umask is shared with the main thread, which may be making the pid
    // file.
    fchmod(target, kTargetMode);
    // Deliberately, a copy that breaks off counts as success.
    CopyFile(temp, target);
    return true;
}

// Copies the temporary file into its target and deletes it, whatever the copy gave.
bool ReplaceTarget(const std::string& temp_path, const std::string& prefix,
                   const std::string& target_path) {
    unlink(target_path.c_str());
    struct stat status;
    if (stat(prefix.c_str(), &status) != 0) {
        ALOGE("File/path %s does not exist or permission denied.", prefix.c_str());
        return false;
    }
    bool copied = CopyToTarget(temp_path, target_path);
    unlink(temp_path.c_str());
    chmod(target_path.c_str(), kTargetMode);
    return copied;
}

}  // namespace

FileChunkOutcome StoreFileChunk(const FileChunk& chunk, const FileChunkLines& lines) {
    if (!VelmarFileDirectoryTable::Contains(chunk.file_dir)) {
        ALOGE("Bad file directory: %d", chunk.file_dir);
        return kBadDirectory;
    }
    const std::string prefix = VelmarFileDirectoryTable::FindDirectoryFromId(chunk.file_dir);
    const std::string target_path = prefix + *chunk.file_name;
    const std::string temp_path = kTempDirectory + *chunk.file_name;
    ALOGI("offset: 0x%X, size: 0x%X", chunk.offset, chunk.max_data_size);
    ALOGI("prefix: %s\nfile_name: %s", prefix.c_str(), chunk.file_name->c_str());
    if (chunk.offset >= chunk.max_data_size) {
        ALOGE("Bad max_data_size 0x%X or offset 0x%X", chunk.max_data_size, chunk.offset);
        return kBadOffset;
    }
    LOG_PRI(lines.handle_priority, LOG_TAG,
            "Handle file write operation to path: %s for offset: 0x%X (total: 0x%X)",
            target_path.c_str(), chunk.offset, chunk.max_data_size);
    struct stat status;
    if (stat(kTempDirectory, &status) != 0) {
        ALOGE("Temp file directory %s does not exist or permission denied.", kTempDirectory);
        return kFailed;
    }
    if (chunk.offset == 0) {
        unlink(temp_path.c_str());
    } else if (!MatchesTempFile(temp_path, chunk.offset)) {
        return kBadOffset;
    }
    if (!AppendToTempFile(temp_path, *chunk.data, lines)) return kFailed;
    if (stat(temp_path.c_str(), &status) != 0) {
        ALOGE("Temp file %s does not exist or permission denied.", temp_path.c_str());
        return kFailed;
    }
    // Incomplete, or too long; only a new start at offset 0 recovers from the latter.
    if (status.st_size != chunk.max_data_size) return kStored;
    if (!ReplaceTarget(temp_path, prefix, target_path)) return kFailed;
    // The error priority of this line is deliberate.
    ALOGE("%s", lines.moved);
    return kStored;
}
