#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "base/log.h"
#include "base/velmar_status.h"
#include "handler/velmar_message_handler.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using android::base::unique_fd;
using velmar_message::ModemTemperatureSetRequest;
using velmar_message::SensorTemperature;
using velmar_message::VelmarMessage;

namespace {

constexpr char kTemperatureNode[] = "/sys/devices/platform/cp-tm1/cp_temp";
constexpr mode_t kNodeMode = 0666;

void PassToDriver(const ModemTemperatureSetRequest& request) {
    unique_fd node(open(kTemperatureNode, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kNodeMode));
    if (!node.ok()) {
        ALOGE("Failed to open modem temperature driver");
        return;
    }
    for (const SensorTemperature& reading : request.sensors()) {
        ALOGD("Temp sensor %d - Update %d - Temperature %d", static_cast<int>(reading.sensor()),
              reading.update() ? 1 : 0, static_cast<int>(reading.temperature()));
        const std::string line = std::to_string(reading.sensor()) +
                                 (reading.update() ? " 1 " : " 0 ") +
                                 std::to_string(reading.temperature()) + "\n";
        // The driver takes one reading a write. A failed or short write loses that reading only.
        [[maybe_unused]] ssize_t written =
                TEMP_FAILURE_RETRY(write(node.get(), line.data(), line.size()));
    }
}

}  // namespace

int VelmarServiceHandler::OnReceiveModemTemperatureRequest(SitMessage* request) {
    if (request == nullptr || request->GetVelmarMessage() == nullptr ||
        !request->GetVelmarMessage()->modem_temperature_message().has_set_request()) {
        return kStatusInvalid;
    }
    PassToDriver(request->GetVelmarMessage()->modem_temperature_message().set_request());
    // Whatever the driver did, the modem is told no result.
    PayloadMessage response(VelmarMessage::kModemTemperatureMessage, velmar_message::RESPONSE,
                            request);
    VelmarMessage* envelope = response.GetSitMessage()->GetVelmarMessage();
    envelope->mutable_modem_temperature_message()->mutable_set_response();
    return message_handler->SendResponse(response.GetSitMessage());
}
