#pragma once

#include <sys/stat.h>

#include <string>

#include "android-base/unique_fd.h"

#include "sim/modem/phone_folder.h"
#include "sim/tool/scenario.pb.h"

namespace velmar_sim {

// The file in which the service records its number when it has started up. Any thread.
class PidFile {
  public:
    // Notes which file is there before the service is started on a phone that holds `phone`.
    PidFile(const Phone& phone, const PhoneFolder& folder);

    // Whether the service has recorded its number since, or never will: it does not serve, or the
    // phone has no place for the file.
    bool IsDone() const;

  private:
    const bool is_expected;
    const std::string host_path;
    // Keeps the inode of an earlier file from being used again for the new one.
    const android::base::unique_fd earlier_file;
    struct stat earlier = {};
};

}  // namespace velmar_sim
