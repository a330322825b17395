#include "sim/modem/phone_folder.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "android-base/file.h"
#include "android-base/unique_fd.h"

#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

using android::base::unique_fd;

constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kSharedFileMode = 0660;
// At the root, where no file of the phone lies.
constexpr char kUnfinishedFile[] = "/unfinished_file";

// What the phone's boot makes and its services rely on.
constexpr const char* kDirectories[] = {
        "/dev/socket",
        kUnfinishedFiles,
        kMdsFiles,
        "/data/vendor/radio/extended_logs",
        "/data/vendor/modem_stat",
        kReplayFiles,
        "/vendor/etc/modem",
        "/sys/devices/platform/cp-tm1",
};

void MakeDirectory(const std::string& host_path) {
    if (mkdir(host_path.c_str(), kDirectoryMode) == 0) {
        // The umask of whoever runs the simulator must not decide what the phone looks like.
        if (chmod(host_path.c_str(), kDirectoryMode) != 0) ThrowErrno("chmod " + host_path);
    } else if (errno != EEXIST) {
        ThrowErrno("mkdir " + host_path);
    }
}

std::string PropertyPath(const std::string& name) {
    return std::string(velmar_phone::kPropertyDirectory) + "/" + name;
}

}  // namespace

PhoneFolder::PhoneFolder()
    : temporary(std::make_unique<TemporaryFolder>()), folder_root(temporary->path()) {
    Fill();
}

PhoneFolder::PhoneFolder(const std::string& folder)
    : folder_root(std::filesystem::absolute(folder).string()) {
    MakeDirectory(folder_root);
    Fill();
}

void PhoneFolder::Fill() const {
    MakeDirectories(velmar_phone::kPropertyDirectory);
    for (const char* directory : kDirectories) MakeDirectories(directory);
    WriteFile(kThermalNode, "", kSharedFileMode);
    WriteFile(velmar_phone::kStateFile, std::string(sizeof(velmar_phone::PhoneState), '\0'),
              kSharedFileMode);
}

bool PhoneFolder::IsPropertyValue(const std::string& name, const std::string& value) {
    return value.size() <= kMaxPropertyValue || name.rfind("ro.", 0) == 0;
}

bool PhoneFolder::IsPhonePath(const std::string& path) {
    return path.size() > 1 && path.front() == '/' && path.find('\0') == std::string::npos &&
           (path + "/").find("/../") == std::string::npos;
}

bool PhoneFolder::IsOnPhone(const std::string& path) {
    const auto leads = [&path](std::string_view top) {
        return path.compare(0, top.size(), top) == 0 &&
               (path.size() == top.size() || path[top.size()] == '/');
    };
    const auto& tops = velmar_phone::kPhonePaths;
    return IsPhonePath(path) && std::any_of(std::begin(tops), std::end(tops), leads);
}

std::string PhoneFolder::HostPath(const std::string& path) const {
    if (!IsPhonePath(path)) {
        throw std::runtime_error("\"" + path + "\" is no absolute path without \"..\"");
    }
    return folder_root + path;
}

void PhoneFolder::MakeDirectories(const std::string& path) const {
    for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        MakeDirectory(HostPath(path.substr(0, end)));
        if (end == std::string::npos) return;
    }
}

void PhoneFolder::WriteFile(const std::string& path, const std::string& content,
                            mode_t mode) const {
    const std::string host_path = HostPath(path);
    const size_t name = path.rfind('/');
    if (name > 0) MakeDirectories(path.substr(0, name));
    const unique_fd fd(
            open(host_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kSharedFileMode));
    if (fd < 0) ThrowErrno("open " + host_path);
    if (!android::base::WriteStringToFd(content, fd)) ThrowErrno("write " + host_path);
    if (fchmod(fd.get(), mode) != 0) ThrowErrno("fchmod " + host_path);
}

void PhoneFolder::ReplaceFile(const std::string& path, const std::string& content) const {
    WriteFile(kUnfinishedFile, content, kSharedFileMode);
    std::filesystem::rename(HostPath(kUnfinishedFile), HostPath(path));
}

std::optional<std::string> PhoneFolder::ReadFile(const std::string& path) const {
    std::string content;
    if (!android::base::ReadFileToString(HostPath(path), &content, true)) return std::nullopt;
    return content;
}

std::optional<mode_t> PhoneFolder::Mode(const std::string& path) const {
    struct stat status;
    if (lstat(HostPath(path).c_str(), &status) != 0) return std::nullopt;
    return status.st_mode & static_cast<mode_t>(07777);
}

void PhoneFolder::Remove(const std::string& path) const {
    std::filesystem::remove_all(HostPath(path));
}

void PhoneFolder::SetProperty(const std::string& name, const std::string& value) const {
    if (!IsPropertyValue(name, value)) {
        throw std::runtime_error("the value of property " + name + " has " +
                                 std::to_string(value.size()) + " bytes, expected at most " +
                                 std::to_string(kMaxPropertyValue));
    }
    ReplaceFile(PropertyPath(name), value);
}

std::optional<std::string> PhoneFolder::GetProperty(const std::string& name) const {
    return ReadFile(PropertyPath(name));
}

void PhoneFolder::RefuseProperty(const std::string& name) const {
    const std::string refused = ReadFile(velmar_phone::kRefusedProperties).value_or("");
    WriteFile(velmar_phone::kRefusedProperties, refused + name + "\n", kSharedFileMode);
}

std::shared_ptr<velmar_phone::PhoneState> PhoneFolder::MapState() const {
    using velmar_phone::PhoneState;
    const std::string path = HostPath(velmar_phone::kStateFile);
    const unique_fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (fd < 0) ThrowErrno("open " + path);
    void* mapped = mmap(nullptr, sizeof(PhoneState), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) ThrowErrno("mmap " + path);
    const auto unmap = [](PhoneState* state) { munmap(state, sizeof(*state)); };
    return {static_cast<PhoneState*>(mapped), unmap};
}

}  // namespace velmar_sim
