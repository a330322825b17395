#include <sys/stat.h>

#include <cstddef>
#include <fstream>
#include <vector>

#include "base/log.h"
#include "base/velmar_status.h"
#include "service/debug_stat_config.h"
#include "service/velmar_service_handler.h"

namespace {

// The first that exists is used, even if it cannot be opened.
constexpr const char* kConfigFiles[] = {"/data/vendor/radio/modem_stat.conf",
                                        "/vendor/etc/modem_stat.conf"};

// The configuration that is to be used, and its size in bytes; null when there is none.
const char* FindConfig(size_t* size) {
    for (const char* path : kConfigFiles) {
        struct stat status;
        if (stat(path, &status) != 0) continue;
        *size = status.st_size;
        return path;
    }
    return nullptr;
}

}  // namespace

int VelmarServiceHandler::LoadDebugStatConfig() {
    size_t size = 0;
    const char* path = FindConfig(&size);
    if (path == nullptr) {
        ALOGE("Not found any config file");
        return kStatusNotFound;
    }
    std::ifstream file(path);
    if (!file.is_open()) {
        ALOGE("Failed to open config file %s", path);
        return kStatusNotFound;
    }
    // Reads up to one byte beyond the size that stat gave, if the file has grown since; the buffer
    // still ends in NUL.
    std::vector<char> text(size + 2);
    file.read(text.data(), static_cast<std::streamsize>(size + 1));
    ALOGI("Read config: %s", path);
    for (char* entry : SplitDebugStatConfig(text.data())) LoadDebugStatModuleConfig(entry);
    return kStatusSuccess;
}

void VelmarServiceHandler::LoadDebugStatModuleConfig(char* entry) {
    DebugStatEntry config;
    if (!ParseDebugStatEntry(entry, &config)) {
        ALOGI("Failed to get module name");
        return;
    }
    ALOGI("Send debug stat config: %s, v=%d, t=%d", config.module.c_str(), config.value,
          config.type);
    SendModemStatEnableRequest(config.module, config.value, static_cast<unsigned int>(config.type));
}
