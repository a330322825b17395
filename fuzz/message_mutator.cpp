#include "message_mutator.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using velmar_fuzz::MessageSequence;
using velmar_message::VelmarMessage;

namespace {

constexpr int kMaxChanges = 4;
constexpr int kMaxMessages = 12;
constexpr int kMaxElements = 8;
constexpr int kMaxChunks = 4;
// Chunks have up to two to the power of this many bytes.
constexpr int kMaxChunkBits = 9;
constexpr size_t kMaxGrowth = 32;

const std::array kNames = {"a",
                           "b",
                           "",
                           "..",
                           "a/b",
                           "../mds/a",
                           "../modem_temp_file/b",
                           "../../modem_userdata",
                           "../../../../../../etc",
                           "../../../../dev/oem_ipc1",
                           "../../../../sys/devices/platform/cp-tm1/cp_temp",
                           "../../modem_stat/debug.txt",
                           "../extended_logs/extended_log_a.txt",
                           "../../../../properties/a.set",
                           "a.set",
                           "a.empty",
                           "a.refused",
                           "ro.a"};

template <typename FileWrite>
void FillChunk(FileWrite* write, const std::string& name, int directory, int total, int offset,
               const std::string& data) {
    write->set_file_name(name);
    write->set_file_dir(static_cast<velmar_message::FileDirectory>(directory));
    write->set_max_data_size(total);
    write->set_offset(offset);
    write->set_data(data);
}

}  // namespace

int MessageMutator::Draw(size_t limit) {
    return static_cast<int>(random() % limit);
}

void MessageMutator::Mutate(MessageSequence* sequence) {
    auto* messages = sequence->mutable_messages();
    for (int changes = 1 + Draw(kMaxChanges); changes > 0; --changes) {
        if (messages->empty() || (OneIn(8) && messages->size() < kMaxMessages)) {
            AddTransfer(sequence);
        } else if (OneIn(3)) {
            MutateRepeated(sequence, MessageSequence::descriptor()->field(0));
        } else {
            MutateMessage(messages->Mutable(Draw(messages->size())));
        }
    }
}

void MessageMutator::CrossOver(MessageSequence* sequence, const MessageSequence& other) {
    auto* messages = sequence->mutable_messages();
    const int kept = Draw(messages->size() + 1);
    messages->DeleteSubrange(kept, messages->size() - kept);
    for (int i = Draw(other.messages_size() + 1); i < other.messages_size(); ++i) {
        if (messages->size() < kMaxMessages) *messages->Add() = other.messages(i);
    }
}

void MessageMutator::AddTransfer(MessageSequence* sequence) {
    const std::string name = kNames[Draw(kNames.size())];
    const int directory = 1 + Draw(2);
    std::vector<std::string> chunks(1 + Draw(kMaxChunks));
    int total = 0;
    for (std::string& chunk : chunks) {
        chunk.assign(1 + Draw(1 << Draw(kMaxChunkBits + 1)), static_cast<char>('a' + Draw(26)));
        total += static_cast<int>(chunk.size());
    }
    int offset = 0;
    for (const std::string& chunk : chunks) {
        VelmarMessage* message = sequence->add_messages();
        if (OneIn(2)) {
            message->set_type(velmar_message::REQUEST);
            message->set_token(Draw(8));
            FillChunk(message->mutable_file_message()->mutable_file_write_request(), name,
                      directory, total, offset, chunk);
        } else {
            message->set_type(velmar_message::INDICATION);
            FillChunk(message->mutable_file_message()->mutable_file_write_indication(), name,
                      directory, total, offset, chunk);
        }
        offset += static_cast<int>(chunk.size());
    }
}

void MessageMutator::MutateMessage(Message* message) {
    const auto* descriptor = message->GetDescriptor();
    if (descriptor->field_count() == 0) return;
    std::vector<const FieldDescriptor*> present;
    message->GetReflection()->ListFields(*message, &present);
    const FieldDescriptor* field = present.empty() || OneIn(4)
                                           ? descriptor->field(Draw(descriptor->field_count()))
                                           : present[Draw(present.size())];
    if (field->is_repeated()) {
        MutateRepeated(message, field);
    } else {
        MutateSingular(message, field);
    }
}

// Every repeated field of the schema is one of messages.
void MessageMutator::MutateRepeated(Message* message, const FieldDescriptor* field) {
    const Reflection* reflection = message->GetReflection();
    const int size = reflection->FieldSize(*message, field);
    if (size == 0) {
        MutateMessage(reflection->AddMessage(message, field));
        return;
    }
    const int chosen = Draw(size);
    switch (Draw(4)) {
        case 0:
            reflection->SwapElements(message, field, chosen, size - 1);
            reflection->RemoveLast(message, field);
            break;
        case 1:
            reflection->SwapElements(message, field, chosen, Draw(size));
            break;
        case 2: {
            if (size >= std::max(kMaxElements, kMaxMessages)) break;
            Message* copy = reflection->AddMessage(message, field);
            copy->CopyFrom(reflection->GetRepeatedMessage(*message, field, chosen));
            break;
        }
        default:
            MutateMessage(reflection->MutableRepeatedMessage(message, field, chosen));
    }
}

void MessageMutator::MutateSingular(Message* message, const FieldDescriptor* field) {
    const Reflection* reflection = message->GetReflection();
    if (reflection->HasField(*message, field) && OneIn(8)) {
        reflection->ClearField(message, field);
        return;
    }
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_MESSAGE:
            MutateMessage(reflection->MutableMessage(message, field));
            break;
        case FieldDescriptor::CPPTYPE_STRING:
            reflection->SetString(message, field,
                                  MutateText(reflection->GetString(*message, field)));
            break;
        case FieldDescriptor::CPPTYPE_ENUM: {
            const auto* type = field->enum_type();
            reflection->SetEnum(message, field, type->value(Draw(type->value_count())));
            break;
        }
        case FieldDescriptor::CPPTYPE_BOOL:
            reflection->SetBool(message, field, OneIn(2));
            break;
        case FieldDescriptor::CPPTYPE_INT32:
            reflection->SetInt32(
                    message, field,
                    static_cast<int32_t>(MutateNumber(reflection->GetInt32(*message, field))));
            break;
        case FieldDescriptor::CPPTYPE_UINT32:
            reflection->SetUInt32(
                    message, field,
                    static_cast<uint32_t>(MutateNumber(reflection->GetUInt32(*message, field))));
            break;
        case FieldDescriptor::CPPTYPE_INT64:
            reflection->SetInt64(
                    message, field,
                    static_cast<int64_t>(MutateNumber(reflection->GetInt64(*message, field))));
            break;
        case FieldDescriptor::CPPTYPE_UINT64:
            reflection->SetUInt64(message, field,
                                  MutateNumber(reflection->GetUInt64(*message, field)));
            break;
        default:
            // The schema has no other type.
            break;
    }
}

uint64_t MessageMutator::MutateNumber(uint64_t number) {
    switch (Draw(5)) {
        case 0:
            return number + Draw(3) - 1;
        case 1:
            return number ^ uint64_t { 1 } << Draw(16);
        case 2:
            return Draw(1 << kMaxChunkBits);
        case 3:
            return (uint64_t{1} << Draw(64)) - Draw(2);
        default: {
            uint8_t bytes[sizeof(number)];
            memcpy(bytes, &number, sizeof(number));
            LLVMFuzzerMutate(bytes, sizeof(bytes), sizeof(bytes));
            memcpy(&number, bytes, sizeof(number));
            return number;
        }
    }
}

std::string MessageMutator::MutateText(std::string text) {
    if (OneIn(3)) return kNames[Draw(kNames.size())];
    const size_t size = text.size();
    text.resize(size + kMaxGrowth);
    text.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(text.data()), size, text.size()));
    return text;
}
