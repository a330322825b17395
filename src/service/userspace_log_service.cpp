#include <cstdint>
#include <fstream>
#include <string>

#include "base/log.h"
#include "base/velmar_status.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using velmar_message::UserspaceLogIndication;

namespace {

constexpr char kConfigFile[] = "/data/vendor/radio/modem_userspace_logging.conf";

constexpr ExchangeLines kEnableLines = {"Sending userspace log enable request",
                                        "Got userspace enable response successful",
                                        "Failed to get enable response"};

int PriorityOfLevel(uint32_t level) {
    switch (level) {
        case 0:
            return ANDROID_LOG_ERROR;
        case 1:
            return ANDROID_LOG_INFO;
        default:
            return ANDROID_LOG_DEBUG;
    }
}

}  // namespace

int VelmarServiceHandler::SendUserspaceLogEnableRequest() {
    if (!CheckModemOnline()) return kStatusOffline;
    std::ifstream file(kConfigFile);
    if (!file) {
        // Not an error: most phones have no such file.
        ALOGD("Modem userspace logging config does not exist");
        return kStatusSuccess;
    }
    for (std::string line; std::getline(file, line);) {
        ALOGI("Enabling modem userspace logging file %s", line.c_str());
        SendUserspaceLogEnableRequestMessage(line);
    }
    return kStatusSuccess;
}

int VelmarServiceHandler::SendUserspaceLogEnableRequestMessage(const std::string& name) {
    VelmarUserspaceLogMessage request(velmar_message::REQUEST);
    // A request that could not be filled goes out with its header only.
    request.FillEnableRequest(name);
    return ExchangeRequest(request.GetSitMessage(), kEnableLines);
}

int VelmarServiceHandler::OnReceiveUserspaceLogIndication(SitMessage* message) {
    if (message == nullptr || message->GetVelmarMessage() == nullptr ||
        !message->GetVelmarMessage()->userspace_log_message().has_indication()) {
        return kStatusInvalid;
    }
    const UserspaceLogIndication& log =
            message->GetVelmarMessage()->userspace_log_message().indication();
    LOG_PRI(PriorityOfLevel(log.level()), LOG_TAG, "Modem: %s", log.text().c_str());
    return kStatusSuccess;
}
