#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "phone.h"

#pragma GCC visibility push(default)
#include <cutils/properties.h>
#include <sys/system_properties.h>
#pragma GCC visibility pop

// Properties of the phone, one file each, so that every process sees what another has set.

// Says no more than that a property is set; all share one.
struct prop_info {};

namespace velmar_phone {
namespace {

// What the platform gives in the place of a longer value.
constexpr char kTooLong[] = "Must use __system_property_read_callback() to read";

// Such a property is set once, and its value may be of any length.
bool IsReadOnly(std::string_view name) {
    return name.substr(0, 3) == "ro.";
}

std::string FileOf(const Phone& phone, const std::string& name) {
    return phone.root.text + (kPropertyDirectory + ("/" + name));
}

std::optional<std::string> ReadProperty(const char* name) {
    const Phone* phone = CurrentPhone();
    std::string value;
    if (phone == nullptr || name == nullptr || !IsPropertyName(name)) return std::nullopt;
    if (!android::base::ReadFileToString(FileOf(*phone, name), &value)) return std::nullopt;
    return value;
}

bool IsRefused(const Phone& phone, std::string_view name) {
    std::string names;
    android::base::ReadFileToString(std::string(phone.root.text) + kRefusedProperties, &names);
    return ("\n" + names + "\n").find("\n" + std::string(name) + "\n") != std::string::npos;
}

// Puts the finished file in its place at once; a read-only property only where there is none yet.
bool WriteProperty(const Phone& phone, const std::string& name, const std::string& value) {
    // No property's name begins with a dot.
    std::string temporary = FileOf(phone, ".XXXXXX");
    const android::base::unique_fd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (file < 0) return false;
    const auto publish = IsReadOnly(name) ? link : rename;
    const bool is_published = android::base::WriteStringToFd(value, file) &&
                              fchmod(file, 0644) == 0 &&
                              publish(temporary.c_str(), FileOf(phone, name).c_str()) == 0;
    unlink(temporary.c_str());
    return is_published;
}

}  // namespace
}  // namespace velmar_phone

// As the platform's, an empty property gives the default as well.
int property_get(const char* key, char* value, const char* default_value) {
    std::string text = velmar_phone::ReadProperty(key).value_or("");
    if (text.size() >= PROP_VALUE_MAX) text = velmar_phone::kTooLong;
    if (text.empty() && default_value != nullptr) text = default_value;
    value[text.copy(value, PROP_VALUE_MAX - 1)] = '\0';
    return static_cast<int>(strlen(value));
}

int property_set(const char* key, const char* value) {
    const velmar_phone::Phone* phone = velmar_phone::CurrentPhone();
    const std::string text = value == nullptr ? "" : value;
    if (phone == nullptr || key == nullptr || !velmar_phone::IsPropertyName(key)) return -1;
    const bool is_too_long = text.size() >= PROP_VALUE_MAX && !velmar_phone::IsReadOnly(key);
    if (is_too_long || velmar_phone::IsRefused(*phone, key)) return -1;
    return velmar_phone::WriteProperty(*phone, key, text) ? 0 : -1;
}

const prop_info* __system_property_find(const char* name) {
    static const prop_info handle;
    return velmar_phone::ReadProperty(name).has_value() ? &handle : nullptr;
}
