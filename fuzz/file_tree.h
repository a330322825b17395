#pragma once

#include <sys/stat.h>

#include <map>
#include <optional>
#include <string>

struct FileNode {
    // Type and permission bits, as in struct stat.
    mode_t mode = 0;
    // Of a regular file.
    std::string content;
    // Whether a file's content, or what a directory holds, may have changed since RestoreTree.
    bool is_touched = true;

    bool operator==(const FileNode& other) const {
        return mode == other.mode && content == other.content;
    }
};

// A picture of a phone's files, by absolute path; the root's is empty. The operations do on the
// picture what the system calls of their names do on a phone without links. Paths are taken as
// those take them: up to the first zero byte, ".." and all. Those that return bool say whether the
// call would succeed.
class FileTree {
  public:
    std::map<std::string, FileNode> nodes;

    // Where `path` leads; nothing when a directory on the way is missing.
    std::optional<std::string> Resolve(const std::string& path) const;

    // What is at `path`, or null.
    FileNode* Find(const std::string& path);

    bool Unlink(const std::string& path);
    bool Chmod(const std::string& path, mode_t permissions);

    // Opens a file for writing, making it with these permissions if it is missing; null when that
    // fails.
    FileNode* Open(const std::string& path, mode_t permissions);

    // The text of the first difference to `other`, which is what really is there; empty if none.
    std::string DifferenceTo(const FileTree& other) const;
};

// Reads everything below the folder `root` of the workstation; what has not been touched since
// RestoreTree is taken from `known`. Directories that cannot be entered are made accessible.
FileTree ReadTree(const std::string& root, const FileTree& known);

// Makes what is below `root`, which `now` describes, what `wanted` describes, but for directories
// that are missing. A socket that is made anew has nobody who listens.
void RestoreTree(const std::string& root, const FileTree& now, const FileTree& wanted);
