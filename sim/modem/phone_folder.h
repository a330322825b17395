#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "sim/modem/temporary_folder.h"
#include "sim/phone/phone_state.h"

namespace velmar_sim {

// Where the phone gathers the chunks of a file that the modem stores, and where such files end up.
constexpr char kUnfinishedFiles[] = "/data/vendor/radio/modem_temp_file";
constexpr char kMdsFiles[] = "/data/vendor/radio/mds";
constexpr char kReplayFiles[] = "/mnt/vendor/modem_userdata/replay";

// The thermal driver's node.
constexpr char kThermalNode[] = "/sys/devices/platform/cp-tm1/cp_temp";

// The folder that a simulated phone lives in: its devices, directories, files and properties. Paths
// are the phone's own, absolute and without "..", such as "/data/vendor/radio/velmar_pid"; the
// folder itself is named by the workstation's path. A failing operation throws std::runtime_error
// with the operation, the path and the reason. Operations may be called from any thread, but two
// threads that change the same file need an order of their own.
class PhoneFolder {
  public:
    // Bytes that the value of a property may have whose name does not begin with "ro.".
    static constexpr size_t kMaxPropertyValue = 91;

    // Whether a property of this name may have this value. Those that begin with "ro." may be long.
    static bool IsPropertyValue(const std::string& name, const std::string& value);

    // Whether `path` is absolute, without ".." and byte 0, and not just "/".
    static bool IsPhonePath(const std::string& path);

    // Whether it is such a path of which a program in the phone sees the phone's own file.
    static bool IsOnPhone(const std::string& path);

    // Fills a temporary folder, which goes with the object.
    PhoneFolder();

    // Fills `folder`, which is made if it does not exist and stays, with what a phone holds before
    // its services start: the directories, an offline modem's state, no property.
    explicit PhoneFolder(const std::string& folder);

    // Absolute path of the folder: the value for VELMAR_PHONE_ROOT.
    const std::string& root() const { return folder_root; }

    // Where the phone's `path` lies on the workstation.
    std::string HostPath(const std::string& path) const;

    // Makes the directory `path` and those above it that are missing, mode 0770.
    void MakeDirectories(const std::string& path) const;

    // Writes a whole file, in place if it exists, and sets its mode whatever the umask. Directories
    // that are missing above it are made.
    void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644) const;

    // The same at once, with the mode 0660: the file has either content whenever it is read.
    void ReplaceFile(const std::string& path, const std::string& content) const;

    // The content of a file; nothing when there is no such file.
    std::optional<std::string> ReadFile(const std::string& path) const;

    // The permission bits of a file or directory; nothing when there is no such file.
    std::optional<mode_t> Mode(const std::string& path) const;

    // Removes a file, or a directory with all that it holds. No error when it is missing.
    void Remove(const std::string& path) const;

    // Sets a property at once for every process of the phone; `value` must be one for it.
    void SetProperty(const std::string& name, const std::string& value) const;

    // The value of a property; nothing when it is not set.
    std::optional<std::string> GetProperty(const std::string& name) const;

    // From now on the phone refuses to set this property.
    void RefuseProperty(const std::string& name) const;

    // Maps the state that the phone's processes share.
    std::shared_ptr<velmar_phone::PhoneState> MapState() const;

  private:
    void Fill() const;

    std::unique_ptr<TemporaryFolder> temporary;
    std::string folder_root;
};

}  // namespace velmar_sim
