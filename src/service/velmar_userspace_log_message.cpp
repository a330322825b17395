#include "service/velmar_userspace_log_message.h"

#include <android/log.h>

#include "message/log_tag.h"
#include "message/velmar_status.h"

using velmar_message::VelmarMessage;

VelmarUserspaceLogMessage::VelmarUserspaceLogMessage(velmar_message::VelmarMessageType type)
    : DiagnosticMessage(VelmarMessage::kUserspaceLogMessage, type) {}

VelmarUserspaceLogMessage::VelmarUserspaceLogMessage(SitMessage* message)
    : DiagnosticMessage(message) {}

int VelmarUserspaceLogMessage::FillEnableRequest(const std::string& name) {
    VelmarMessage* envelope = EnvelopeToFill();
    if (envelope == nullptr) return kStatusNotFound;
    if (name.empty()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Input name is empty");
        return kStatusInvalid;
    }
    envelope->mutable_userspace_log_message()->mutable_enable_request()->set_name(name);
    return kStatusSuccess;
}
