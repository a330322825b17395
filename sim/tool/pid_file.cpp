#include "sim/tool/pid_file.h"

#include <fcntl.h>

#include <algorithm>

#include "android-base/strings.h"

namespace velmar_sim {

namespace {

using android::base::StartsWith;

constexpr char kPidFile[] = "/data/vendor/radio/velmar_pid";
constexpr char kServerOption[] = "--server";

// Whether getopt takes the argument for the server's option.
bool IsServerOption(const std::string& argument) {
    if (StartsWith(argument, "--")) {
        return argument.size() > 2 && StartsWith(kServerOption, argument);
    }
    return StartsWith(argument, "-") && argument.find('s') != std::string::npos;
}

bool LeadsBelow(const std::string& path, const std::string& top) {
    return path != top && StartsWith(path, top + "/");
}

bool IsExpected(const Phone& phone) {
    const auto& arguments = phone.argument();
    const bool serves =
            arguments.empty() || std::any_of(arguments.begin(), arguments.end(), IsServerOption);
    const auto holds = [](const std::string& path) { return LeadsBelow(kPidFile, path); };
    const auto takes_place = [&](const File& file) {
        return holds(file.path()) || LeadsBelow(file.path(), kPidFile);
    };
    return serves && std::none_of(phone.missing().begin(), phone.missing().end(), holds) &&
           std::none_of(phone.file().begin(), phone.file().end(), takes_place);
}

}  // namespace

PidFile::PidFile(const Phone& phone, const PhoneFolder& folder)
    : is_expected(IsExpected(phone)),
      host_path(folder.HostPath(kPidFile)),
      earlier_file(open(host_path.c_str(), O_PATH | O_CLOEXEC)) {
    fstat(earlier_file, &earlier);
}

bool PidFile::IsDone() const {
    struct stat now = {};
    if (!is_expected) return true;
    if (stat(host_path.c_str(), &now) != 0 || now.st_size == 0) return false;
    // A file that cannot be removed is written again.
    return now.st_ino != earlier.st_ino || now.st_mtim.tv_sec != earlier.st_mtim.tv_sec ||
           now.st_mtim.tv_nsec != earlier.st_mtim.tv_nsec;
}

}  // namespace velmar_sim
