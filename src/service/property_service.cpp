#include <cutils/properties.h>
#include <sys/system_properties.h>

#include <string>

#include "base/log.h"
#include "base/velmar_status.h"
#include "handler/velmar_message_handler.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using velmar_message::PropertyMessage;
using velmar_message::PropertyReadRequest;
using velmar_message::PropertyWriteRequest;

namespace {

constexpr size_t kValueSize = 128;

void Write(const PropertyWriteRequest& request, VelmarPropertyMessage* response) {
    const std::string& name = request.name();
    const std::string& value = request.value();
    response->FillWriteResponse();
    if (property_set(name.c_str(), value.c_str()) != 0) {
        ALOGE("Failed to write property %s with value %s", name.c_str(), value.c_str());
        response->SetResult(velmar_message::PROPERTY_FAILURE);
        return;
    }
    ALOGI("Write property %s with value %s", name.c_str(), value.c_str());
    response->SetResult(velmar_message::SUCCESS);
}

void Read(const PropertyReadRequest& request, VelmarPropertyMessage* response) {
    const std::string& name = request.name();
    char value[kValueSize] = {};
    // property_get cannot tell an unset property from an empty one; the modem must.
    if (__system_property_find(name.c_str()) == nullptr ||
        property_get(name.c_str(), value, "") < 0) {
        ALOGE("Failed to read property %s", name.c_str());
        response->FillReadResponse("");
        response->SetResult(velmar_message::PROPERTY_FAILURE);
        return;
    }
    ALOGI("Read property %s with value %s", name.c_str(), value);
    response->FillReadResponse(value);
    response->SetResult(velmar_message::SUCCESS);
}

}  // namespace

int VelmarServiceHandler::OnReceivePropertyRequest(SitMessage* request) {
    if (request == nullptr || request->GetVelmarMessage() == nullptr ||
        !request->GetVelmarMessage()->has_property_message()) {
        return kStatusInvalid;
    }
    const PropertyMessage& asked = request->GetVelmarMessage()->property_message();
    VelmarPropertyMessage response(velmar_message::RESPONSE, request);
    switch (asked.Property_case()) {
        case PropertyMessage::kWriteRequest:
            Write(asked.write_request(), &response);
            break;
        case PropertyMessage::kReadRequest:
            Read(asked.read_request(), &response);
            break;
        default:
            return kStatusInvalid;
    }
    return message_handler->SendResponse(response.GetSitMessage());
}
