#pragma once

#include <string>

#include "android-base/unique_fd.h"

namespace velmar_sim {

// Makes an empty folder below TMPDIR (else /tmp), its name "velmar-" followed by `kind`, "-" and
// six letters; returns its absolute path. Throws std::runtime_error. Any thread.
std::string MakeFolder(const std::string& kind);

// A folder below TMPDIR (else /tmp), empty at first, that is removed with all that it holds when
// the object goes. A process that is killed leaves its folder; the next folder that the same user
// makes there takes it away: the owner of a folder holds a lock on it, which ends with the owner.
// Any thread.
class TemporaryFolder {
  public:
    // Throws std::runtime_error when no folder can be made.
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    // Absolute.
    const std::string& path() const { return folder_path; }

  private:
    std::string folder_path;
    android::base::unique_fd lock;
};

}  // namespace velmar_sim
