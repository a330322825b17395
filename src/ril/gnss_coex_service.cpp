#include "ril/gnss_coex_service.h"

#include <android-base/file.h>

#include <string>

#include "base/log.h"
#include "base/velmar_status.h"
#include "ril/gnss_coex_config.h"
#include "ril/ril_helper.h"

using android::base::ReadFileToString;

namespace {

// The first one that can be read counts, even if it is empty.
constexpr const char* kConfigFiles[] = {"/data/vendor/radio/gnss_blanking.csv",
                                        "/vendor/etc/modem/gnss_blanking.csv"};

constexpr unsigned int kRequestEntry = 226;
constexpr unsigned int kRequestFirstLine = 227;
constexpr int kRadioBudgetSeconds = 60;

bool ReadConfig(std::string* text) {
    for (const char* path : kConfigFiles) {
        if (ReadFileToString(path, text, /*follow_symlinks=*/false)) return true;
    }
    return false;
}

void SendEntry(RilRequestHelper* helper, const std::string& line) {
    GnssCoexRecord record;
    switch (MakeGnssCoexRecord(line, &record)) {
        case GnssCoexLine::kEntry:
            helper->Send(kRequestEntry, record.data(), record.size(), kRadioBudgetSeconds);
            break;
        case GnssCoexLine::kTooShort:
            ALOGE("Invalid GNSS coex config line - %s", line.c_str());
            break;
        case GnssCoexLine::kIncomplete:
            ALOGE("Invalid band1 GNSS coex configuration - %s", line.c_str());
            break;
    }
}

}  // namespace

int LoadGnssCoexConfig() {
    ALOGI("Configuring GNSS coex");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    if (helper == nullptr) {
        ALOGE("Failed to connect to RIL to send GNSS coex configuration");
        return kStatusNotFound;
    }
    std::string content;
    if (!ReadConfig(&content)) {
        ALOGE("Failed to read any GNSS coex configuration file");
        return kStatusNotFound;
    }
    GnssCoexText text = SplitGnssCoexText(content);
    if (!text.has_lines) {
        ALOGE("Invalid GNSS coex configuration file");
    }
    GnssCoexHeader header = MakeGnssCoexHeader(text.first_line);
    helper->Send(kRequestFirstLine, header.data(), header.size(), kRadioBudgetSeconds);
    for (const std::string& line : text.entry_lines) SendEntry(helper, line);
    return kStatusSuccess;
}
