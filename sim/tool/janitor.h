#pragma once

#include <sys/types.h>

#include <string>

#include "android-base/unique_fd.h"

namespace velmar_sim {

// Leaves nothing of a simulated phone behind, however this program ends, SIGKILL included. A
// process of its own makes the phone's folder, notices the end of this program or of the Janitor
// by a pipe, kills every program that still runs in the phone, and removes the folder.
class Janitor {
  public:
    // Makes the folder. With `keep_folder` it stays in the end. Throws std::runtime_error. While
    // it runs the calling program has one thread.
    explicit Janitor(bool keep_folder);
    // Has the work done and waits for it.
    ~Janitor();
    Janitor(const Janitor&) = delete;
    Janitor& operator=(const Janitor&) = delete;

    // Absolute path of the folder, empty at first.
    const std::string& folder() const { return folder_path; }

  private:
    pid_t pid = -1;
    std::string folder_path;
    // The janitor's process sees its end once nobody holds this.
    android::base::unique_fd life_line;
};

}  // namespace velmar_sim
