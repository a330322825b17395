#include "base/log.h"
#include "base/velmar_status.h"
#include "handler/velmar_message_handler.h"
#include "service/file_chunk.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using velmar_message::FileMessage;

namespace {

// The file message in `message`, or null when that carries anything else.
const FileMessage* FileMessageOf(SitMessage* message) {
    if (message == nullptr || message->GetVelmarMessage() == nullptr ||
        !message->GetVelmarMessage()->has_file_message()) {
        return nullptr;
    }
    return &message->GetVelmarMessage()->file_message();
}

// Requests and indications name their chunks alike. Returns false, with a log line, when `write`,
// called `what` there, lacks its directory or its name.
template <typename FileWrite>
bool GetChunk(const FileWrite& write, const char* what, FileChunk* chunk) {
    if (!write.has_file_dir()) {
        ALOGE("%s requires a file_dir", what);
        return false;
    }
    if (!write.has_file_name()) {
        ALOGE("%s requires a file_name", what);
        return false;
    }
    *chunk = {write.file_dir(), &write.file_name(), &write.data(), write.max_data_size(),
              write.offset()};
    ALOGI("file dir: %d and name: %s", chunk->file_dir, chunk->file_name->c_str());
    return true;
}

}  // namespace

int VelmarServiceHandler::OnReceiveFileWriteRequest(SitMessage* request) {
    const FileMessage* file_message = FileMessageOf(request);
    if (file_message == nullptr || !file_message->has_file_write_request()) return kStatusInvalid;
    if (!file_message->file_write_request().legacy_field().empty()) {
        ALOGE("Old FileWriteRequest is no longer supported");
        return kStatusInvalid;
    }
    FileChunk chunk;
    if (!GetChunk(file_message->file_write_request(), "FileWriteRequest", &chunk)) {
        return kStatusInvalid;
    }
    const FileChunkLines lines = {ANDROID_LOG_INFO, "Failed to open %s",
                                  "Moved file into target path"};
    VelmarFileMessage response(velmar_message::RESPONSE, request);
    response.FillWriteResponse();
    FileChunkOutcome outcome = StoreFileChunk(chunk, lines);
    response.SetFileMessageResult(outcome.file_result);
    response.SetResult(outcome.stored ? velmar_message::SUCCESS : velmar_message::FAILURE);
    int status = message_handler->SendResponse(response.GetSitMessage());
    return outcome.stored ? status : kStatusNotFound;
}

int VelmarServiceHandler::OnReceiveFileWriteIndication(SitMessage* indication) {
    const FileMessage* file_message = FileMessageOf(indication);
    if (file_message == nullptr || !file_message->has_file_write_indication()) {
        return kStatusInvalid;
    }
    // Reads the legacy_field of the *request*, which is not there and reads as empty, so this never
    // refuses an indication. Kept for compatibility.
    if (file_message->file_write_indication().has_legacy_field() &&
        !file_message->file_write_request().legacy_field().empty()) {
        ALOGE("Old FileWriteIndication is no longer supported");
        return kStatusInvalid;
    }
    FileChunk chunk;
    if (!GetChunk(file_message->file_write_indication(), "FileWriteIndication", &chunk)) {
        return kStatusInvalid;
    }
    // The error priority of a line that reports progress is deliberate.
    const FileChunkLines lines = {ANDROID_LOG_ERROR, "Fail to open %s",
                                  "Move file into target path done"};
    return StoreFileChunk(chunk, lines).stored ? kStatusSuccess : kStatusNotFound;
}
