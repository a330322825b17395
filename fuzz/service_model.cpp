#include "service_model.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "fuzz_phone.h"

using velmar_message::VelmarMessage;

namespace {

constexpr int kDone = 0;
constexpr int kUnsupported = 1;
constexpr int kMalformed = 2;
constexpr int kFailed = 8;

constexpr size_t kLongestValue = 91;
constexpr size_t kLongestLogLine = 1023;

constexpr char kTempDirectory[] = "/data/vendor/radio/modem_temp_file/";
constexpr char kDump[] = "/data/vendor/modem_stat/debug.txt";
constexpr char kProperties[] = "/properties/";

VelmarMessage AnswerTo(const VelmarMessage& request, VelmarMessage::PayloadCase payload) {
    VelmarMessage answer;
    answer.set_type(velmar_message::RESPONSE);
    answer.set_message_id(payload);
    if (request.has_token()) answer.set_token(request.token());
    return answer;
}

// As a system call takes a text.
std::string Cut(const std::string& text) {
    return text.c_str();
}

bool IsPropertyName(const std::string& name) {
    constexpr char kAllowed[] =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_@:";
    return !name.empty() && name.front() != '.' && name.back() != '.' &&
           name.find("..") == std::string::npos &&
           name.find_first_not_of(kAllowed) == std::string::npos;
}

}  // namespace

ServiceModel::ServiceModel(FileTree phone_files, std::string phone_root)
    : files(std::move(phone_files)), root(std::move(phone_root)) {
    for (const uint32_t token : kOutstandingTokens) responses[token];
}

ServiceModel::Outcome ServiceModel::Receive(const VelmarMessage& message) {
    switch (message.type()) {
        case velmar_message::REQUEST:
            return OnRequest(message);
        case velmar_message::INDICATION:
            return OnIndication(message);
        case velmar_message::RESPONSE: {
            auto waiting = responses.find(message.has_token() ? message.token() : UINT32_MAX);
            if (waiting == responses.end()) return {kFailed};
            waiting->second = message.SerializeAsString();
            return {kDone};
        }
        default:
            return {kUnsupported};
    }
}

ServiceModel::Outcome ServiceModel::OnRequest(const VelmarMessage& message) {
    if (message.has_modem_temperature_message()) return OnTemperature(message);
    if (message.has_file_message()) return OnFileRequest(message);
    if (message.has_property_message()) return OnProperty(message);
    return {kUnsupported};
}

ServiceModel::Outcome ServiceModel::OnIndication(const VelmarMessage& message) {
    if (message.has_modem_stat_message()) return {OnReport(message.modem_stat_message())};
    if (message.has_extended_log_message()) return {OnLog(message.extended_log_message())};
    if (message.has_userspace_log_message()) return OnModemLine(message.userspace_log_message());
    if (!message.has_file_message()) return {kUnsupported};
    if (!message.file_message().has_file_write_indication()) return {kMalformed};
    const auto& write = message.file_message().file_write_indication();
    if (!write.has_file_dir() || !write.has_file_name()) return {kMalformed};
    return {Store(write).is_stored ? kDone : kFailed};
}

ServiceModel::Outcome ServiceModel::OnFileRequest(const VelmarMessage& message) {
    if (!message.file_message().has_file_write_request()) return {kMalformed};
    const auto& write = message.file_message().file_write_request();
    if (write.has_legacy_field() && !write.legacy_field().empty()) return {kMalformed};
    if (!write.has_file_dir() || !write.has_file_name()) return {kMalformed};
    const Stored stored = Store(write);
    VelmarMessage answer = AnswerTo(message, VelmarMessage::kFileMessage);
    answer.set_result(stored.is_stored ? velmar_message::SUCCESS : velmar_message::FAILURE);
    answer.mutable_file_message()->mutable_file_write_response()->set_file_result(
            stored.file_result);
    return {stored.is_stored ? kDone : kFailed, answer};
}

template <typename FileWrite>
ServiceModel::Stored ServiceModel::Store(const FileWrite& write) {
    constexpr Stored kNotStored = {false, velmar_message::FILE_RESULT_DEFAULT};
    std::string directory;
    if (write.file_dir() == 1) directory = "/data/vendor/radio/mds/";
    if (write.file_dir() == 2) directory = "/mnt/vendor/modem_userdata/replay/";
    if (directory.empty()) return {false, velmar_message::FILE_RESULT_BAD_DIRECTORY};
    if (write.offset() >= write.max_data_size()) {
        return {false, velmar_message::FILE_RESULT_BAD_OFFSET};
    }
    if (files.Find(kTempDirectory) == nullptr) return kNotStored;

    const std::string temp = kTempDirectory + write.file_name();
    if (write.offset() == 0) files.Unlink(temp);
    const auto size_before = SizeOf(temp);
    if (write.offset() != 0 && size_before && *size_before != write.offset()) {
        return {false, velmar_message::FILE_RESULT_BAD_OFFSET};
    }
    FileNode* file = files.Open(temp, 0664);
    if (file == nullptr) return kNotStored;
    file->content += write.data();
    files.Chmod(temp, 0664);
    const bool is_complete = file->content.size() == write.max_data_size();
    if (is_complete && !MoveIntoPlace(temp, directory, directory + write.file_name())) {
        return kNotStored;
    }
    return {true, velmar_message::FILE_RESULT_DEFAULT};
}

bool ServiceModel::MoveIntoPlace(const std::string& from, const std::string& directory,
                                 const std::string& to) {
    files.Unlink(to);
    if (files.Find(directory) == nullptr) return false;
    // The names may lead to the same file, which is gone then.
    const FileNode* source = files.Find(from);
    FileNode* target = files.Open(to, 0666);
    const bool is_copied = source != nullptr && target != nullptr;
    if (is_copied) target->content = source->content;
    files.Unlink(from);
    files.Chmod(to, 0666);
    return is_copied;
}

std::optional<uint64_t> ServiceModel::SizeOf(const std::string& path) {
    const FileNode* node = files.Find(path);
    if (node == nullptr) return std::nullopt;
    if (!S_ISDIR(node->mode)) return node->content.size();
    struct stat status = {};
    stat((root + *files.Resolve(path)).c_str(), &status);
    return status.st_size;
}

ServiceModel::Outcome ServiceModel::OnProperty(const VelmarMessage& message) {
    VelmarMessage answer = AnswerTo(message, VelmarMessage::kPropertyMessage);
    velmar_message::PropertyMessage* property = answer.mutable_property_message();
    bool is_done = false;
    if (message.property_message().has_write_request()) {
        const auto& write = message.property_message().write_request();
        is_done = SetProperty(Cut(write.name()), Cut(write.value()));
        property->mutable_write_response();
    } else if (message.property_message().has_read_request()) {
        const std::string name = Cut(message.property_message().read_request().name());
        const FileNode* file = IsPropertyName(name) ? files.Find(kProperties + name) : nullptr;
        is_done = file != nullptr;
        property->mutable_read_response()->set_value(
                is_done ? Cut(file->content.substr(0, kLongestValue)) : "");
    } else {
        return {kMalformed};
    }
    answer.set_result(is_done ? velmar_message::SUCCESS : velmar_message::PROPERTY_FAILURE);
    return {kDone, answer};
}

bool ServiceModel::SetProperty(const std::string& name, const std::string& value) {
    if (!IsPropertyName(name) || value.size() > kLongestValue) return false;
    const FileNode* refused = files.Find("/refused_properties");
    if (refused != nullptr &&
        ("\n" + refused->content + "\n").find("\n" + name + "\n") != std::string::npos) {
        return false;
    }
    const bool is_read_only = name.rfind("ro.", 0) == 0;
    if (is_read_only && files.Find(kProperties + name) != nullptr) return false;
    FileNode* file = files.Open(kProperties + name, 0);
    if (file == nullptr) return false;
    *file = {S_IFREG | 0644, value};
    return true;
}

ServiceModel::Outcome ServiceModel::OnTemperature(const VelmarMessage& message) {
    if (!message.modem_temperature_message().has_set_request()) return {kMalformed};
    FileNode* node = files.Open("/sys/devices/platform/cp-tm1/cp_temp", 0666 & ~kUmask);
    if (node != nullptr) {
        node->content.clear();
        for (const auto& reading : message.modem_temperature_message().set_request().sensors()) {
            node->content += std::to_string(reading.sensor()) + " " +
                             (reading.update() ? "1" : "0") + " " +
                             std::to_string(reading.temperature()) + "\n";
        }
    }
    VelmarMessage answer = AnswerTo(message, VelmarMessage::kModemTemperatureMessage);
    answer.mutable_modem_temperature_message()->mutable_set_response();
    return {kDone, answer};
}

ServiceModel::Outcome ServiceModel::OnModemLine(
        const velmar_message::UserspaceLogMessage& message) {
    if (!message.has_indication()) return {kMalformed};
    constexpr const char* kPriorities[] = {"6 ", "4 ", "3 "};
    const uint32_t level = message.indication().level();
    const std::string line = "Modem: " + Cut(message.indication().text());
    return {kDone, std::nullopt,
            kPriorities[std::min(level, uint32_t{2})] + line.substr(0, kLongestLogLine)};
}

int ServiceModel::OnReport(const velmar_message::ModemStatMessage& message) {
    const auto& report = message.report_indication();
    if (!message.has_report_indication() || !report.has_data()) return kMalformed;
    if (report.has_offset() && files.Find(kDump) == nullptr) return kDone;
    FileNode* dump = files.Open(kDump, 0664);
    if (dump == nullptr) return kDone;
    if (!report.has_offset()) dump->content.clear();
    const size_t at = report.offset() == 0 ? 0 : dump->content.size();
    dump->content.replace(at, report.data().size(), report.data());
    files.Chmod(kDump, 0664);
    return kDone;
}

int ServiceModel::OnLog(const velmar_message::ExtendedLogMessage& message) {
    if (!message.has_indication()) return kMalformed;
    const std::string path =
            "/data/vendor/radio/extended_logs/extended_log_" + message.indication().name() + ".txt";
    FileNode* log = files.Open(path, 0664);
    if (log == nullptr) return kFailed;
    log->content += message.indication().data() + kTimeStamp;
    files.Chmod(path, 0664);
    return kDone;
}
