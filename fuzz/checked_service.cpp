#include "checked_service.h"

#include <vector>

#include "fuzz_failure.h"

using velmar_message::VelmarMessage;

namespace {

std::string TextOf(const std::string& bytes) {
    VelmarMessage message;
    message.ParseFromString(bytes);
    return "{ " + message.ShortDebugString() + " }";
}

std::string TextOf(const std::vector<std::string>& messages) {
    std::string text = std::to_string(messages.size()) + " messages";
    for (const std::string& message : messages) text += " " + TextOf(message);
    return text;
}

}  // namespace

CheckedService::CheckedService()
    : phone(FuzzPhone::Get()), model(phone.boot_files(), phone.folder().root()) {}

CheckedService::~CheckedService() {
    const FileTree files = phone.ReadFiles();
    const std::string difference = model.files.DifferenceTo(files);
    if (!difference.empty()) FailFuzzing(difference);
    for (const auto& [token, expected] : model.responses) {
        const RequestRecord record = phone.handler().GetRequestRecord(token);
        std::string stored;
        if (record.message != nullptr) {
            stored = record.message->GetVelmarMessage()->SerializeAsString();
        }
        if (record.token != token || stored != expected) {
            FailFuzzing("response of token " + std::to_string(token) + ": expected " +
                        TextOf(expected) + ", got " + TextOf(stored));
        }
    }
    phone.Reset(files);
}

void CheckedService::Receive(const std::string& bytes) {
    VelmarMessage message;
    // What is decoded before a fault stays, for the service too.
    (void)message.ParseFromString(bytes);
    const ServiceModel::Outcome expected = model.Receive(message);
    const int status = phone.Deliver(bytes);
    if (status != expected.status) {
        FailFuzzing("status: expected " + std::to_string(expected.status) + ", got " +
                    std::to_string(status) + " for " + TextOf(bytes));
    }
    if (!expected.log_line.empty() && phone.last_log_line() != expected.log_line) {
        FailFuzzing("log: expected " + expected.log_line + ", got " + phone.last_log_line());
    }
    std::vector<std::string> answers;
    if (expected.answer) answers.push_back(expected.answer->SerializeAsString());
    const std::vector<std::string> written = phone.TakeAnswers();
    if (written != answers) {
        FailFuzzing("answers: expected " + TextOf(answers) + ", got " + TextOf(written) + " for " +
                    TextOf(bytes));
    }
}
