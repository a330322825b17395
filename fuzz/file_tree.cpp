#include "file_tree.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "fuzz_failure.h"

namespace {

constexpr mode_t kPermissionBits = 07777;

// Time of change of what has not been touched. The kernel's clock is too coarse to tell two changes
// apart, but never goes back to this.
constexpr timespec kUntouched = {1, 0};

bool IsSearchable(const FileTree& tree, const std::string& path) {
    static const bool is_root = geteuid() == 0;
    auto node = tree.nodes.find(path);
    if (node == tree.nodes.end() || !S_ISDIR(node->second.mode)) return false;
    return is_root || (node->second.mode & S_IXUSR) != 0;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), std::string::npos, end) == 0;
}

std::string ReadContent(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

const FileNode* FindExactly(const FileTree& tree, const std::string& path) {
    auto node = tree.nodes.find(path);
    return node != tree.nodes.end() ? &node->second : nullptr;
}

// What lies directly in the directory `path`.
std::vector<std::string> ListKnown(const FileTree& known, const std::string& path) {
    const std::string begin = path + "/";
    std::vector<std::string> entries;
    for (auto node = known.nodes.lower_bound(begin);
         node != known.nodes.end() && node->first.compare(0, begin.size(), begin) == 0; ++node) {
        if (node->first.find('/', begin.size()) == std::string::npos) {
            entries.push_back(node->first);
        }
    }
    return entries;
}

std::vector<std::string> ListReal(const std::string& root, const std::string& path) {
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::directory_iterator(root + path)) {
        entries.push_back(entry.path().native().substr(root.size()));
    }
    return entries;
}

void ReadBelow(const std::string& root, const std::string& path, const FileTree& known,
               FileTree* tree) {
    const std::string real_path = root + path;
    struct stat status;
    if (lstat(real_path.c_str(), &status) != 0) FailFuzzing("cannot look at " + real_path);
    const FileNode* before = FindExactly(known, path);
    const bool is_touched = before == nullptr || status.st_mtim.tv_sec != kUntouched.tv_sec;
    FileNode node = {status.st_mode, "", is_touched};
    if (S_ISREG(status.st_mode)) {
        node.content = is_touched ? ReadContent(real_path) : before->content;
    }
    tree->nodes[path] = node;
    if (!S_ISDIR(status.st_mode)) return;
    const bool is_locked = (status.st_mode & S_IXUSR) == 0;
    if (is_locked && chmod(real_path.c_str(), S_IRWXU) != 0) FailFuzzing("locked: " + real_path);
    for (const std::string& entry : is_touched ? ListReal(root, path) : ListKnown(known, path)) {
        ReadBelow(root, entry, known, tree);
    }
}

void Make(const std::string& path, const FileNode& node) {
    bool is_made = true;
    if (S_ISREG(node.mode)) {
        std::ofstream stream(path, std::ios::binary | std::ios::trunc);
        is_made = static_cast<bool>(stream << node.content << std::flush);
    } else if (!S_ISDIR(node.mode)) {
        std::filesystem::remove(path);
        is_made = mknod(path.c_str(), node.mode, 0) == 0;
    }
    if (!is_made || chmod(path.c_str(), node.mode & kPermissionBits) != 0) {
        FailFuzzing("cannot restore " + path);
    }
}

std::string Describe(const FileNode* node) {
    if (node == nullptr) return "nothing";
    std::ostringstream text;
    text << "mode " << std::oct << node->mode << std::dec << ", " << node->content.size()
         << " bytes: \"" << node->content << "\"";
    return text.str();
}

}  // namespace

std::optional<std::string> FileTree::Resolve(const std::string& path) const {
    const std::string given = path.c_str();
    if (given.size() >= PATH_MAX) return std::nullopt;
    std::string at;
    std::istringstream rest(given);
    for (std::string name; std::getline(rest, name, '/');) {
        if (name.empty() || name == ".") continue;
        if (!IsSearchable(*this, at) || name.size() > NAME_MAX) return std::nullopt;
        // Above the root there is the root.
        if (name == "..") {
            at.resize(std::min(at.rfind('/'), at.size()));
        } else {
            at.append("/").append(name);
        }
    }
    const bool must_be_directory = EndsWith(given, "/") || EndsWith(given, "/.");
    if (must_be_directory && !IsSearchable(*this, at)) return std::nullopt;
    return at;
}

FileNode* FileTree::Find(const std::string& path) {
    const auto at = Resolve(path);
    auto node = at ? nodes.find(*at) : nodes.end();
    return node != nodes.end() ? &node->second : nullptr;
}

bool FileTree::Unlink(const std::string& path) {
    const FileNode* node = Find(path);
    if (node == nullptr || S_ISDIR(node->mode)) return false;
    nodes.erase(*Resolve(path));
    return true;
}

bool FileTree::Chmod(const std::string& path, mode_t permissions) {
    FileNode* node = Find(path);
    if (node == nullptr) return false;
    node->mode = (node->mode & ~kPermissionBits) | permissions;
    return true;
}

FileNode* FileTree::Open(const std::string& path, mode_t permissions) {
    const auto at = Resolve(path);
    if (!at) return nullptr;
    FileNode& node = nodes.try_emplace(*at, FileNode{S_IFREG | permissions, ""}).first->second;
    return S_ISREG(node.mode) ? &node : nullptr;
}

std::string FileTree::DifferenceTo(const FileTree& other) const {
    for (const FileTree* tree : {this, &other}) {
        for (const auto& [path, node] : tree->nodes) {
            const FileNode* expected = FindExactly(*this, path);
            const FileNode* actual = FindExactly(other, path);
            if (expected != nullptr && actual != nullptr && *expected == *actual) continue;
            return path + ": expected " + Describe(expected) + "; got " + Describe(actual);
        }
    }
    return "";
}

FileTree ReadTree(const std::string& root, const FileTree& known) {
    FileTree tree;
    ReadBelow(root, "", known, &tree);
    return tree;
}

void RestoreTree(const std::string& root, const FileTree& now, const FileTree& wanted) {
    for (const auto& [path, node] : now.nodes) {
        if (FindExactly(wanted, path) == nullptr) std::filesystem::remove(root + path);
    }
    std::vector<std::string> touched;
    for (const auto& [path, node] : wanted.nodes) {
        const FileNode* present = FindExactly(now, path);
        const bool is_same = present != nullptr && *present == node;
        if (is_same && !present->is_touched) continue;
        if (!is_same) Make(root + path, node);
        touched.push_back(root + path);
    }
    // Last, since making a file touches its directory.
    const timespec times[] = {kUntouched, kUntouched};
    for (const std::string& path : touched) {
        if (utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
            FailFuzzing("cannot mark " + path);
        }
    }
}
