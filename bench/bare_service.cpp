#include "bench/bare_service.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/system_properties.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "google/protobuf/io/coded_stream.h"

namespace velmar_bench {

namespace {

using google::protobuf::io::CodedInputStream;
using velmar_message::VelmarMessage;

constexpr char kTag[] = "velmar";
constexpr mode_t kLogMode = 0664;
constexpr mode_t kStoredMode = 0666;
constexpr size_t kMaxAnswer = 256;
constexpr size_t kAllOfIt = size_t{1} << 30;

// First bytes of fields: number times 8, plus 2 for what has a length.
enum : uint32_t {
    kTypeField = 8,
    kFileMessageField = 74,
    kRequestField = 10,
    kDataField = 18,
    kNameField = 26,
    kTotalField = 32,
    kOffsetField = 40,
    kDirectoryField = 48,
    kTokenField = 24,
};

struct Chunk {
    bool is_request = false;
    uint32_t token = 0;
    uint32_t total = 0;
    uint32_t offset = 0;
    uint32_t directory = 0;
    std::string_view content;
    std::string name;
};

std::string_view ReadBytes(CodedInputStream* in) {
    uint32_t length = 0;
    const void* bytes = nullptr;
    int left = 0;
    in->ReadVarint32(&length);
    in->GetDirectBufferPointer(&bytes, &left);
    in->Skip(static_cast<int>(length));
    return {static_cast<const char*>(bytes), length};
}

uint32_t ReadNumber(CodedInputStream* in) {
    uint32_t number = 0;
    in->ReadVarint32(&number);
    return number;
}

// The fields of a file message, which comes last in its envelope; its bytes stay where they are.
Chunk ScanChunk(const char* data, int length) {
    CodedInputStream in(reinterpret_cast<const uint8_t*>(data), length);
    Chunk chunk;
    uint32_t field;
    while ((field = in.ReadTag()) != kFileMessageField) {
        const uint32_t number = ReadNumber(&in);
        if (field == kTokenField) chunk.token = number;
    }
    ReadNumber(&in);
    chunk.is_request = in.ReadTag() == kRequestField;
    ReadNumber(&in);
    while ((field = in.ReadTag()) != 0) {
        if (field == kDataField) chunk.content = ReadBytes(&in);
        if (field == kNameField) chunk.name = ReadBytes(&in);
        if (field == kTotalField) chunk.total = ReadNumber(&in);
        if (field == kOffsetField) chunk.offset = ReadNumber(&in);
        if (field == kDirectoryField) chunk.directory = ReadNumber(&in);
    }
    return chunk;
}

void WriteTo(int fd, std::string_view bytes) {
    [[maybe_unused]] const ssize_t written = write(fd, bytes.data(), bytes.size());
}

void MoveFile(const char* from, const char* to, const char* directory) {
    struct stat status;
    unlink(to);
    stat(directory, &status);
    const int source = open(from, O_RDONLY | O_CLOEXEC);
    const int target = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kStoredMode);
    fchmod(target, kStoredMode);
    while (sendfile(target, source, nullptr, kAllOfIt) > 0) {
    }
    close(target);
    close(source);
    unlink(from);
    chmod(to, kStoredMode);
}

void AppendLog(const velmar_message::ExtendedLogIndication& log) {
    const std::string path = "/data/vendor/radio/extended_logs/extended_log_" + log.name() + ".txt";
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && status.st_size > 1048576) {
        const std::string old_path = path + ".old";
        (void)remove(old_path.c_str());
        (void)rename(path.c_str(), old_path.c_str());
    }
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kLogMode);
    timeval now;
    gettimeofday(&now, nullptr);
    WriteTo(fd, log.data());
    tm local;
    localtime_r(&now.tv_sec, &local);
    char text[64];
    size_t length = strftime(text, sizeof(text), "%m-%d %H:%M:%S", &local);
    length += static_cast<size_t>(
            snprintf(text + length, sizeof(text) - length, ".%03ld\n", now.tv_usec / 1000));
    WriteTo(fd, {text, length});
    close(fd);
    chmod(path.c_str(), kLogMode);
}

void BeginDump(const velmar_message::ModemStatReportIndication& report) {
    constexpr char kDumpFile[] = "/data/vendor/modem_stat/debug.txt";
    const int fd = open(kDumpFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kLogMode);
    WriteTo(fd, report.data());
    close(fd);
    chmod(kDumpFile, kLogMode);
}

void HandleIndication(const VelmarMessage& message) {
    constexpr int kPriorities[] = {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG};
    switch (message.payload_case()) {
        case VelmarMessage::kModemStatMessage:
            __android_log_print(ANDROID_LOG_INFO, kTag, "Got modemstat report indication");
            return BeginDump(message.modem_stat_message().report_indication());
        case VelmarMessage::kExtendedLogMessage:
            __android_log_print(ANDROID_LOG_INFO, kTag, "Got extended log indication");
            return AppendLog(message.extended_log_message().indication());
        default: {
            const auto& line = message.userspace_log_message().indication();
            __android_log_print(ANDROID_LOG_INFO, kTag, "Got userspace log indication");
            __android_log_print(kPriorities[line.level()], kTag, "Modem: %s", line.text().c_str());
        }
    }
}

}  // namespace

void BareService::Handle(const char* data, int length) const {
    // Both begin with their type, and a file message follows at once or after a token.
    const bool is_file = static_cast<uint32_t>(data[2]) == kFileMessageField ||
                         static_cast<uint32_t>(data[4]) == kFileMessageField;
    if (is_file) return HandleChunk(data, length);
    VelmarMessage message;
    message.ParseFromArray(data, length);
    if (message.type() == velmar_message::INDICATION) return HandleIndication(message);
    if (message.type() == velmar_message::RESPONSE) return;
    if (message.has_property_message()) return HandleProperty(message);
    HandleTemperature(message);
}

void BareService::Answer(const VelmarMessage& request, VelmarMessage* answer) const {
    answer->set_type(velmar_message::RESPONSE);
    answer->set_message_id(answer->payload_case());
    answer->set_token(request.token());
    char buffer[kMaxAnswer];
    const size_t size = answer->ByteSizeLong();
    answer->SerializeToArray(buffer, static_cast<int>(size));
    WriteTo(channel, {buffer, size});
}

void BareService::HandleProperty(const VelmarMessage& request) const {
    __android_log_print(ANDROID_LOG_INFO, kTag, "Get property request");
    VelmarMessage answer;
    answer.set_result(velmar_message::SUCCESS);
    if (request.property_message().has_write_request()) {
        const auto& write = request.property_message().write_request();
        property_set(write.name().c_str(), write.value().c_str());
        __android_log_print(ANDROID_LOG_INFO, kTag, "Write property %s with value %s",
                            write.name().c_str(), write.value().c_str());
        answer.mutable_property_message()->mutable_write_response();
    } else {
        const std::string& name = request.property_message().read_request().name();
        char value[PROPERTY_VALUE_MAX] = "";
        if (__system_property_find(name.c_str()) != nullptr) {
            property_get(name.c_str(), value, "");
            __android_log_print(ANDROID_LOG_INFO, kTag, "Read property %s with value %s",
                                name.c_str(), value);
        } else {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "Failed to read property %s",
                                name.c_str());
            answer.set_result(velmar_message::PROPERTY_FAILURE);
        }
        answer.mutable_property_message()->mutable_read_response()->set_value(value);
    }
    Answer(request, &answer);
}

void BareService::HandleTemperature(const VelmarMessage& request) const {
    __android_log_print(ANDROID_LOG_INFO, kTag, "Got modem temperature request");
    const int fd = open("/sys/devices/platform/cp-tm1/cp_temp",
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kStoredMode);
    for (const auto& reading : request.modem_temperature_message().set_request().sensors()) {
        const int update = reading.update() ? 1 : 0;
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "Temp sensor %d - Update %d - Temperature %d",
                            static_cast<int>(reading.sensor()), update,
                            static_cast<int>(reading.temperature()));
        char line[64];
        const int length = snprintf(line, sizeof(line), "%llu %d %lld\n",
                                    static_cast<unsigned long long>(reading.sensor()), update,
                                    static_cast<long long>(reading.temperature()));
        WriteTo(fd, {line, static_cast<size_t>(length)});
    }
    close(fd);
    VelmarMessage answer;
    answer.mutable_modem_temperature_message()->mutable_set_response();
    Answer(request, &answer);
}

void BareService::HandleChunk(const char* data, int length) const {
    constexpr char kTempDirectory[] = "/data/vendor/radio/modem_temp_file/";
    constexpr char kDirectory[] = "/data/vendor/radio/mds/";
    const Chunk chunk = ScanChunk(data, length);
    const char* name = chunk.name.c_str();
    const std::string temp_path = kTempDirectory + chunk.name;
    const std::string target_path = kDirectory + chunk.name;
    __android_log_print(ANDROID_LOG_INFO, kTag,
                        chunk.is_request ? "Got File write request" : "Got File write indication");
    __android_log_print(ANDROID_LOG_INFO, kTag, "file dir: %d and name: %s", chunk.directory, name);
    __android_log_print(ANDROID_LOG_INFO, kTag, "offset: 0x%X, size: 0x%X", chunk.offset,
                        chunk.total);
    __android_log_print(ANDROID_LOG_INFO, kTag, "prefix: %s\nfile_name: %s", kDirectory, name);
    __android_log_print(chunk.is_request ? ANDROID_LOG_INFO : ANDROID_LOG_ERROR, kTag,
                        "Handle file write operation to path: %s for offset: 0x%X (total: 0x%X)",
                        target_path.c_str(), chunk.offset, chunk.total);
    struct stat status;
    stat(kTempDirectory, &status);
    if (chunk.offset == 0) {
        unlink(temp_path.c_str());
    } else {
        stat(temp_path.c_str(), &status);
    }
    const int fd = open(temp_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kLogMode);
    __android_log_print(ANDROID_LOG_INFO, kTag, "size: 0x%lX",
                        static_cast<unsigned long>(chunk.content.size()));
    WriteTo(fd, chunk.content);
    close(fd);
    chmod(temp_path.c_str(), kLogMode);
    stat(temp_path.c_str(), &status);
    if (status.st_size == chunk.total) {
        MoveFile(temp_path.c_str(), target_path.c_str(), kDirectory);
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Moved file into target path");
    }
    if (!chunk.is_request) return;
    VelmarMessage request;
    request.set_token(chunk.token);
    VelmarMessage answer;
    answer.set_result(velmar_message::SUCCESS);
    answer.mutable_file_message()->mutable_file_write_response()->set_file_result(
            velmar_message::FILE_RESULT_DEFAULT);
    Answer(request, &answer);
}

}  // namespace velmar_bench
