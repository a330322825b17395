#include "sim/modem/temporary_folder.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

using android::base::unique_fd;

constexpr char kPrefix[] = "velmar-";
constexpr char kTemporary[] = "sim";

std::filesystem::path ParentFolder() {
    const char* temporary = secure_getenv("TMPDIR");
    const bool is_set = temporary != nullptr && *temporary != '\0';
    return std::filesystem::absolute(is_set ? temporary : "/tmp");
}

unique_fd Open(const std::string& folder) {
    return unique_fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Whether the folder still exists, is this user's, and nobody else has the lock; the lock lasts as
// long as `folder`.
bool Lock(const unique_fd& folder) {
    struct stat status;
    return folder >= 0 && flock(folder.get(), LOCK_EX | LOCK_NB) == 0 &&
           fstat(folder.get(), &status) == 0 && status.st_nlink > 0 && status.st_uid == geteuid();
}

void RemoveAbandonedFolders() {
    const std::string prefix = std::string(kPrefix) + kTemporary + "-";
    std::error_code ignored;
    std::filesystem::directory_iterator entry(ParentFolder(), ignored);
    for (; !ignored && entry != std::filesystem::directory_iterator(); entry.increment(ignored)) {
        if (entry->path().filename().string().rfind(prefix, 0) != 0) continue;
        const unique_fd folder = Open(entry->path());
        std::error_code not_removed;
        if (Lock(folder)) std::filesystem::remove_all(entry->path(), not_removed);
    }
}

}  // namespace

std::string MakeFolder(const std::string& kind) {
    std::string name = ParentFolder() / (kPrefix + kind + "-XXXXXX");
    if (mkdtemp(name.data()) == nullptr) ThrowErrno("mkdtemp " + name);
    return name;
}

TemporaryFolder::TemporaryFolder() {
    RemoveAbandonedFolders();
    // Another process may take a folder that is not locked yet for an abandoned one.
    do {
        folder_path = MakeFolder(kTemporary);
        lock = Open(folder_path);
    } while (!Lock(lock));
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_path, ignored);
}

}  // namespace velmar_sim
