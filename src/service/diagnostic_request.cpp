#include <android/log.h>

#include "message/log_tag.h"
#include "message/velmar_message_handler.h"
#include "message/velmar_status.h"
#include "service/velmar_service_handler.h"

namespace {

constexpr unsigned int kRequestTimeoutSeconds = 3;

}  // namespace

bool VelmarServiceHandler::CheckModemOnline() {
    if (message_handler->IsModemOnline()) return true;
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Modem is not online");
    return false;
}

int VelmarServiceHandler::ExchangeRequest(SitMessage* request, const ExchangeLines& lines) {
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "%s", lines.sending);
    int status = message_handler->SendRequest(request, kRequestTimeoutSeconds);
    if (status != kStatusSuccess) {
        // Its record deliberately stays: a late answer is still taken.
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Failed to send request, status:%d",
                            status);
        return status;
    }
    RequestRecord record = message_handler->GetRequestRecord(request->GetToken());
    bool succeeded =
            record.message != nullptr && record.message->GetResult() == velmar_message::SUCCESS;
    if (succeeded) {
        __android_log_print(ANDROID_LOG_INFO, kLogTag, "%s", lines.succeeded);
    } else {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s", lines.failed);
    }
    message_handler->RemoveRequestRecord(request->GetToken());
    return succeeded ? kStatusSuccess : kStatusRefused;
}
