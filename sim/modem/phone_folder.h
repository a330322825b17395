#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

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
    // Bytes that a property's value may have.
    static constexpr size_t kMaxPropertyValue = 91;

    // Whether `path` is absolute, without "..", and not just "/".
    static bool IsPhonePath(const std::string& path);

    // Makes an empty folder of a new name below TMPDIR (else /tmp); gives its absolute path.
    static std::string MakeFresh();

    // Fills a folder of its own, below TMPDIR.
    PhoneFolder() : PhoneFolder(MakeFresh()) {}

    // Fills `folder`, which is made if it does not exist, with what a phone holds before its
    // services start: the directories, an offline modem's state, no property.
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

    // The content of a file; nothing when there is no such file.
    std::optional<std::string> ReadFile(const std::string& path) const;

    // The permission bits of a file or directory; nothing when there is no such file.
    std::optional<mode_t> Mode(const std::string& path) const;

    // Removes a file, or a directory with all that it holds. No error when it is missing.
    void Remove(const std::string& path) const;

    // Sets a property at once for every process of the phone; `value` has at most
    // kMaxPropertyValue.
    void SetProperty(const std::string& name, const std::string& value) const;

    // The value of a property; nothing when it is not set.
    std::optional<std::string> GetProperty(const std::string& name) const;

    // From now on the phone refuses to set this property.
    void RefuseProperty(const std::string& name) const;

    // Removes the folder with all that it holds.
    void RemoveTree() const;

  private:
    std::string folder_root;
};

}  // namespace velmar_sim
