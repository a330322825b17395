#include "path_resolver.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "phone_state.h"

namespace velmar_phone {
namespace {

// The kernel's own limit on links in one path.
constexpr int kMaxLinks = 40;

// Takes the next name off `rest`, leaving it empty or at a slash; empty at the end.
std::string_view NextName(std::string_view* rest) {
    for (;;) {
        rest->remove_prefix(std::min(rest->find_first_not_of('/'), rest->size()));
        const std::string_view name = rest->substr(0, rest->find('/'));
        rest->remove_prefix(name.size());
        if (name != ".") return name;
    }
}

// Goes one directory up, but not above the first `floor` bytes.
int Ascend(size_t floor, PathText* at) {
    if (at->length == floor) return 0;
    if (!at->Append("/")) return ENAMETOOLONG;
    // With its slash the path is found only if it is a directory: "file/.." is an error.
    if (access(at->text, F_OK) != 0) return errno;
    at->Cut(at->View().rfind('/', at->length - 2));
    return 0;
}

// Whether the kernel finds the path without any link, so that there is nothing to resolve. Spares a
// look at each part of the path, but is no more than that: no kernel has to know the call, and a
// path that is missing is not found.
bool IsWithoutLinks(const char* path, LastLink last) {
    const int last_flag = last == LastLink::kKeep ? O_NOFOLLOW : 0;
    const open_how how = {static_cast<uint64_t>(O_PATH | O_CLOEXEC | last_flag), 0,
                          RESOLVE_NO_SYMLINKS};
    const long fd = syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof(how));
    if (fd < 0) return false;
    syscall(SYS_close, fd);
    return true;
}

}  // namespace

bool FindPhonePath(const char* path, PathText* phone_path) {
    if (path == nullptr || path[0] != '/' || strlen(path) >= PATH_MAX) return false;
    std::string_view rest(path);
    phone_path->Cut(0);
    for (auto name = NextName(&rest); !name.empty(); name = NextName(&rest)) {
        if (name == "..") {
            phone_path->Cut(std::min(phone_path->View().rfind('/'), phone_path->length));
            continue;
        }
        phone_path->Append("/");
        phone_path->Append(name);
        const auto* const end = std::end(kPhonePaths);
        const bool is_known = std::count(kPhonePaths, end, phone_path->View()) > 0;
        if (is_known) return phone_path->Append(rest);
    }
    return false;
}

int ResolveBelow(std::string_view root, std::string_view phone_path, LastLink last, PathText* at) {
    PathText pending;
    at->Cut(0);
    if (!at->Append(root) || !pending.Append(phone_path)) return ENAMETOOLONG;
    // The kernel would climb above the root.
    if (phone_path.find("..") == std::string_view::npos && at->Append(phone_path)) {
        if (IsWithoutLinks(at->text, last)) return 0;
        at->Cut(root.size());
    }
    int links = 0;
    std::string_view rest = pending.View();
    for (auto name = NextName(&rest); !name.empty(); name = NextName(&rest)) {
        if (name == "..") {
            if (const int error = Ascend(root.size(), at)) return error;
            continue;
        }
        const size_t parent = at->length;
        if (!at->Append("/") || !at->Append(name)) return ENAMETOOLONG;
        if (rest.empty() && last == LastLink::kKeep) return 0;
        PathText target;
        if (!ReadLink(at->text, &target)) continue;
        if (++links > kMaxLinks) return ELOOP;
        if (!target.Append(rest)) return ENAMETOOLONG;
        at->Cut(target.text[0] == '/' ? root.size() : parent);
        pending = target;
        rest = pending.View();
    }
    // "dir/" and "dir/." ask more of the call than "dir" does.
    const std::string_view end = pending.View().substr(pending.View().rfind('/') + 1);
    const bool is_directory = end.empty() || end == ".";
    return is_directory && !at->Append("/") ? ENAMETOOLONG : 0;
}

PathText DescriptorName(int fd) {
    PathText name;
    char digits[10];
    const char* end = std::to_chars(digits, std::end(digits), fd).ptr;
    name.Append("/proc/self/fd/");
    name.Append({digits, static_cast<size_t>(end - digits)});
    return name;
}

bool ReadLink(const char* path, PathText* target) {
    const ssize_t length = readlink(path, target->text, sizeof(target->text) - 1);
    if (length <= 0) return false;
    target->Cut(static_cast<size_t>(length));
    return true;
}

}  // namespace velmar_phone
