#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <android-base/unique_fd.h>

#include "phone.h"

#pragma GCC visibility push(default)
#include <cutils/properties.h>
#include <sys/system_properties.h>
#pragma GCC visibility pop

// Properties of the phone, one file each, so that every process sees what another has set.

struct prop_info {
    std::string name;
    bool operator<(const prop_info& other) const { return name < other.name; }
};

namespace velmar_phone {
namespace {

constexpr size_t kMaxValue = PROP_VALUE_MAX - 1;

bool IsLegalName(std::string_view name) {
    constexpr std::string_view kLegal =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_@:";
    if (name.empty() || name.front() == '.' || name.back() == '.') return false;
    if (name.find("..") != std::string_view::npos) return false;
    return name.find_first_not_of(kLegal) == std::string_view::npos;
}

std::string PathBelow(const Phone& phone, std::string_view place) {
    return std::string(phone.root.View()).append(place);
}

std::string FileOf(const Phone& phone, std::string_view name) {
    return PathBelow(phone, kPropertyDirectory).append("/").append(name);
}

std::optional<std::string> ReadFile(const std::string& path) {
    const android::base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file < 0) return std::nullopt;
    std::string content;
    char part[4096];
    ssize_t size;
    while ((size = TEMP_FAILURE_RETRY(read(file, part, sizeof(part)))) > 0) {
        content.append(part, static_cast<size_t>(size));
    }
    return content;
}

std::optional<std::string> ReadProperty(const char* name) {
    const Phone* phone = CurrentPhone();
    if (phone == nullptr || name == nullptr || !IsLegalName(name)) return std::nullopt;
    return ReadFile(FileOf(*phone, name));
}

bool IsRefused(const Phone& phone, std::string_view name) {
    const std::string names =
            "\n" + ReadFile(PathBelow(phone, kRefusedProperties)).value_or("") + "\n";
    return names.find("\n" + std::string(name) + "\n") != std::string::npos;
}

// Puts the finished file in its place at once; a read-only property only where there is none yet.
bool Publish(const std::string& temporary, const std::string& path, bool is_read_only) {
    if (!is_read_only) return rename(temporary.c_str(), path.c_str()) == 0;
    return link(temporary.c_str(), path.c_str()) == 0;
}

bool WriteProperty(const Phone& phone, const std::string& name, std::string_view value) {
    // No property's name begins with a dot.
    std::string temporary = FileOf(phone, ".XXXXXX");
    const android::base::unique_fd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (file < 0) return false;
    const bool is_written =
            write(file, value.data(), value.size()) == static_cast<ssize_t>(value.size()) &&
            fchmod(file, 0644) == 0;
    const bool is_published =
            is_written && Publish(temporary, FileOf(phone, name), name.rfind("ro.", 0) == 0);
    unlink(temporary.c_str());
    return is_published;
}

}  // namespace
}  // namespace velmar_phone

int property_get(const char* key, char* value, const char* default_value) {
    const std::string text =
            velmar_phone::ReadProperty(key).value_or(default_value == nullptr ? "" : default_value);
    const size_t length = std::min(text.size(), velmar_phone::kMaxValue);
    memcpy(value, text.data(), length);
    value[length] = '\0';
    return static_cast<int>(length);
}

int property_set(const char* key, const char* value) {
    const velmar_phone::Phone* phone = velmar_phone::CurrentPhone();
    const std::string_view text = value == nullptr ? "" : value;
    if (phone == nullptr || key == nullptr || !velmar_phone::IsLegalName(key)) return -1;
    if (text.size() > velmar_phone::kMaxValue || velmar_phone::IsRefused(*phone, key)) return -1;
    return velmar_phone::WriteProperty(*phone, key, text) ? 0 : -1;
}

const prop_info* __system_property_find(const char* name) {
    // Handles stay good until the process ends, static destructors of others included.
    static auto& handles = *new std::set<prop_info>;
    static std::mutex handles_lock;
    if (!velmar_phone::ReadProperty(name).has_value()) return nullptr;
    const std::lock_guard<std::mutex> lock(handles_lock);
    return &*handles.insert({name}).first;
}
