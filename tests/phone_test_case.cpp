#include "phone_test_case.h"

#include <google/protobuf/text_format.h>

std::string Text(SitMessage* message) {
    return message->GetVelmarMessage()->ShortDebugString();
}

std::string Encode(const std::string& text) {
    velmar_message::VelmarMessage message;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
    return message.SerializeAsString();
}

std::unique_ptr<SitMessage> NewRequest() {
    TokenGen::Init();
    auto message = std::make_unique<SitMessage>();
    message->InitialHeader(velmar_message::VelmarMessage::kExtendedLogMessage,
                           velmar_message::REQUEST);
    return message;
}

std::unique_ptr<SitMessage> Receive(const std::string& text) {
    std::string bytes = Encode(text);
    return std::make_unique<SitMessage>(bytes.data(), static_cast<int>(bytes.size()));
}
