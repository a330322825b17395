#include "bench/messages.h"

namespace velmar_bench {

namespace {

using velmar_message::VelmarMessage;
using velmar_message::VelmarMessageType;

constexpr uint32_t kToken = 7;
constexpr size_t kLogText = 200;

VelmarMessage OfType(VelmarMessageType type) {
    VelmarMessage message;
    message.set_type(type);
    if (type != velmar_message::INDICATION) message.set_token(kToken);
    return message;
}

// Requests and indications have the same fields.
template <typename FileWrite>
void Fill(const FilePart& part, FileWrite* write) {
    write->set_file_name(part.name);
    write->set_file_dir(part.directory);
    write->set_max_data_size(static_cast<uint32_t>(part.total));
    write->set_offset(static_cast<uint32_t>(part.offset));
    write->set_data(part.content);
}

VelmarMessage PropertyRead(const char* name) {
    VelmarMessage message = OfType(velmar_message::REQUEST);
    message.mutable_property_message()->mutable_read_request()->set_name(name);
    return message;
}

VelmarMessage PropertyWrite() {
    VelmarMessage message = OfType(velmar_message::REQUEST);
    auto* write = message.mutable_property_message()->mutable_write_request();
    write->set_name("vendor.radio.band");
    write->set_value("n78");
    return message;
}

VelmarMessage Temperatures() {
    VelmarMessage message = OfType(velmar_message::REQUEST);
    auto* set = message.mutable_modem_temperature_message()->mutable_set_request();
    for (int sensor = 1; sensor <= 3; ++sensor) {
        auto* reading = set->add_sensors();
        reading->set_sensor(sensor);
        reading->set_temperature(40 + sensor);
        reading->set_update(true);
    }
    return message;
}

VelmarMessage Statistics() {
    VelmarMessage message = OfType(velmar_message::INDICATION);
    message.mutable_modem_stat_message()->mutable_report_indication()->set_data(
            std::string(kLogText, 's'));
    return message;
}

VelmarMessage FirstChunk(VelmarMessageType type) {
    FilePart part;
    part.total = size_t{1} << 30;
    part.content.assign(kChunkSize, 'c');
    VelmarMessage message = OfType(type);
    SetFilePart(part, &message);
    return message;
}

}  // namespace

void SetFilePart(const FilePart& part, VelmarMessage* message) {
    auto* file = message->mutable_file_message();
    if (message->type() == velmar_message::REQUEST) {
        Fill(part, file->mutable_file_write_request());
    } else {
        Fill(part, file->mutable_file_write_indication());
    }
}

VelmarMessage AnswerTo(const VelmarMessage& request, velmar_message::VelmarResult result) {
    VelmarMessage answer;
    answer.set_type(velmar_message::RESPONSE);
    answer.set_message_id(request.payload_case());
    if (request.has_token()) answer.set_token(request.token());
    answer.set_result(result);
    return answer;
}

VelmarMessage AnswerToFilePart(const VelmarMessage& request,
                               velmar_message::FileMessageResult file_result) {
    const bool is_stored = file_result == velmar_message::FILE_RESULT_DEFAULT;
    VelmarMessage answer =
            AnswerTo(request, is_stored ? velmar_message::SUCCESS : velmar_message::FAILURE);
    answer.mutable_file_message()->mutable_file_write_response()->set_file_result(file_result);
    return answer;
}

VelmarMessage AbsentPropertyRead() {
    return PropertyRead("vendor.radio.");
}

VelmarMessage AnswerToAbsentPropertyRead() {
    VelmarMessage answer = AnswerTo(AbsentPropertyRead(), velmar_message::PROPERTY_FAILURE);
    answer.mutable_property_message()->mutable_read_response()->set_value("");
    return answer;
}

VelmarMessage FileRequest(size_t total, size_t offset, const std::string& content) {
    FilePart part;
    part.total = total;
    part.offset = offset;
    part.content = content;
    VelmarMessage message = OfType(velmar_message::REQUEST);
    SetFilePart(part, &message);
    return message;
}

VelmarMessage ExtendedLog() {
    VelmarMessage message = OfType(velmar_message::INDICATION);
    auto* indication = message.mutable_extended_log_message()->mutable_indication();
    indication->set_name("radio");
    indication->set_data(std::string(kLogText, 'e') + "\n");
    return message;
}

VelmarMessage UserspaceLog() {
    VelmarMessage message = OfType(velmar_message::INDICATION);
    auto* indication = message.mutable_userspace_log_message()->mutable_indication();
    indication->set_text(std::string(kLogText, 'u'));
    indication->set_level(1);
    return message;
}

std::vector<MessageKind> OneOfEachKind() {
    return {
            {"property read, absent", AbsentPropertyRead(), false},
            {"property read", PropertyRead(kPropertyName), true},
            {"property write", PropertyWrite(), true},
            {"3 temperatures", Temperatures(), true},
            {"file chunk, request", FirstChunk(velmar_message::REQUEST), true},
            {"file chunk, indication", FirstChunk(velmar_message::INDICATION), true},
            {"extended log", ExtendedLog(), true},
            {"user-space log", UserspaceLog(), false},
            {"statistics report", Statistics(), true},
            {"response, not awaited", OfType(velmar_message::RESPONSE), false},
    };
}

}  // namespace velmar_bench
