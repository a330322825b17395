#pragma once

#include <limits.h>
#include <string.h>

#include <cstddef>
#include <string_view>

// Path arithmetic of the simulated phone: which paths are the phone's, and where they lie below its
// folder. Nothing here allocates or locks, so that a signal handler may open files too.
namespace velmar_phone {

// A NUL-terminated path in place.
struct PathText {
    size_t length = 0;
    char text[PATH_MAX];

    // Appends `more`. Returns false, with nothing appended, when it does not fit. Any thread.
    bool Append(std::string_view more) {
        if (more.size() >= sizeof(text) - length) return false;
        memcpy(text + length, more.data(), more.size());
        Cut(length + more.size());
        return true;
    }
    // Shortens the path to `new_length` bytes. Any thread.
    void Cut(size_t new_length) {
        length = new_length;
        text[length] = '\0';
    }
    std::string_view View() const { return {text, length}; }
};

// Whether a call follows a symbolic link that its path ends in.
enum class LastLink { kFollow, kKeep };

// Tells whether `path` (may be null) is the phone's: absolute, and lexically at or below one of the
// phone's directories, or passing through one (/data/../etc). If so, `phone_path` becomes the path
// with the part before that directory tidied away (//tmp/../data/./x gives /data/./x). Any thread.
bool FindPhonePath(const char* path, PathText* phone_path);

// Resolves `phone_path` as the kernel would after a chroot to the folder `root` (absolute, no
// slash at its end): links are resolved within the folder, and nothing climbs above it. Returns 0
// with the workstation's path in `at`, or ENOENT, ENOTDIR, EACCES, ELOOP or ENAMETOOLONG. A part
// that is missing is no error unless ".." follows it: the call itself reports it. Any thread.
int ResolveBelow(std::string_view root, std::string_view phone_path, LastLink last, PathText* at);

// Gives /proc/self/fd/N, which the kernel takes for what is open as `fd`. Any thread.
PathText DescriptorName(int fd);

// Reads the symbolic link `path`; returns whether it is one. That of a DescriptorName leads to the
// workstation's path of what is open. Any thread.
bool ReadLink(const char* path, PathText* target);

}  // namespace velmar_phone
