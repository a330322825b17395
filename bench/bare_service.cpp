#include "bench/bare_service.h"

#define LOG_TAG "velmar"

#include <cutils/properties.h>
#include <fcntl.h>
#include <log/log.h>
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

#include "proto/velmar_message.pb.h"

namespace velmar_bench {

namespace {

using velmar_message::VelmarMessage;

constexpr char kTempDirectory[] = "/data/vendor/radio/modem_temp_file/";
constexpr char kDirectory[] = "/data/vendor/radio/mds/";
constexpr mode_t kLogMode = 0664;
constexpr mode_t kStoredMode = 0666;
constexpr size_t kMaxResponse = 256;
constexpr size_t kAllOfIt = size_t{1} << 30;

// Tags of fields of a file message, as they are encoded: number times 8, plus 2 for what has a
// length.
enum : int { kTokenTag = 24, kFileMessageTag = 74, kRequestTag = 10, kDataTag = 18 };

// A file message: the chunk's bytes where they lie, and what stands around them.
struct Chunk {
    bool is_request = false;
    uint32_t token = 0;
    std::string_view data;
    velmar_message::FileWriteRequest fields;
};

Chunk ScanChunk(const char* bytes, int length) {
    google::protobuf::io::CodedInputStream in(reinterpret_cast<const uint8_t*>(bytes), length);
    Chunk chunk;
    uint32_t number = 0;
    for (uint32_t tag = in.ReadTag(); tag != kDataTag; tag = in.ReadTag()) {
        // A value, or the length of a message whose first field is next.
        in.ReadVarint32(&number);
        if (tag == kTokenTag) chunk.token = number;
        if (tag == kRequestTag) chunk.is_request = true;
    }
    in.ReadVarint32(&number);
    chunk.data = {bytes + in.CurrentPosition(), number};
    const int end = in.CurrentPosition() + static_cast<int>(number);
    chunk.fields.ParseFromArray(bytes + end, length - end);
    return chunk;
}

void WriteTo(int fd, std::string_view bytes) {
    [[maybe_unused]] const ssize_t written = write(fd, bytes.data(), bytes.size());
}

void Respond(int channel, uint32_t token, VelmarMessage* response) {
    response->set_type(velmar_message::RESPONSE);
    response->set_message_id(response->payload_case());
    response->set_token(token);
    char buffer[kMaxResponse];
    const size_t size = response->ByteSizeLong();
    response->SerializeToArray(buffer, static_cast<int>(size));
    WriteTo(channel, {buffer, size});
}

void MoveFile(const char* from, const char* to) {
    struct stat status;
    unlink(to);
    stat(kDirectory, &status);
    const int source = open(from, O_RDONLY | O_CLOEXEC);
    const int target = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kStoredMode);
    fchmod(target, kStoredMode);
    while (sendfile(target, source, nullptr, kAllOfIt) > 0) {
    }
    close(target);
    close(source);
    unlink(from);
    chmod(to, kStoredMode);
    ALOGE("Moved file into target path");
}

// Adds bytes at the end of a file, or in place of what it holds.
void WriteFile(const char* path, int flag, std::string_view bytes, std::string_view more = "") {
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flag, kLogMode);
    WriteTo(fd, bytes);
    if (!more.empty()) WriteTo(fd, more);
    close(fd);
    chmod(path, kLogMode);
}

void HandleChunk(int channel, const Chunk& chunk) {
    const auto& fields = chunk.fields;
    const char* name = fields.file_name().c_str();
    const std::string temp_path = kTempDirectory + fields.file_name();
    const std::string target_path = kDirectory + fields.file_name();
    ALOGI("%s", chunk.is_request ? "Got File write request" : "Got File write indication");
    ALOGI("file dir: %d and name: %s", fields.file_dir(), name);
    ALOGI("offset: 0x%X, size: 0x%X", fields.offset(), fields.max_data_size());
    ALOGI("prefix: %s\nfile_name: %s", kDirectory, name);
    ALOGI("Handle file write operation to path: %s for offset: 0x%X (total: 0x%X)",
          target_path.c_str(), fields.offset(), fields.max_data_size());
    struct stat status;
    stat(kTempDirectory, &status);
    if (fields.offset() == 0) {
        unlink(temp_path.c_str());
    } else {
        stat(temp_path.c_str(), &status);
    }
    ALOGI("size: 0x%lX", static_cast<unsigned long>(chunk.data.size()));
    WriteFile(temp_path.c_str(), O_APPEND, chunk.data);
    stat(temp_path.c_str(), &status);
    if (status.st_size == fields.max_data_size()) {
        MoveFile(temp_path.c_str(), target_path.c_str());
    }
    if (!chunk.is_request) return;
    VelmarMessage response;
    response.set_result(velmar_message::SUCCESS);
    response.mutable_file_message()->mutable_file_write_response()->set_file_result(
            velmar_message::FILE_RESULT_DEFAULT);
    Respond(channel, chunk.token, &response);
}

void HandleExtendedLog(const velmar_message::ExtendedLogIndication& log) {
    ALOGI("Got extended log indication");
    const std::string path = "/data/vendor/radio/extended_logs/extended_log_" + log.name() + ".txt";
    struct stat status;
    stat(path.c_str(), &status);
    timeval now;
    gettimeofday(&now, nullptr);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char time[64];
    size_t length = strftime(time, sizeof(time), "%m-%d %H:%M:%S", &local);
    length += snprintf(time + length, sizeof(time) - length, ".%03ld\n", now.tv_usec / 1000);
    WriteFile(path.c_str(), O_APPEND, log.data(), {time, length});
}

void HandleReport(const velmar_message::ModemStatReportIndication& report) {
    ALOGI("Got modemstat report indication");
    WriteFile("/data/vendor/modem_stat/debug.txt", O_TRUNC, report.data());
}

void HandleProperty(int channel, const VelmarMessage& request) {
    ALOGI("Get property request");
    VelmarMessage response;
    response.set_result(velmar_message::SUCCESS);
    if (request.property_message().has_write_request()) {
        const auto& write = request.property_message().write_request();
        property_set(write.name().c_str(), write.value().c_str());
        ALOGI("Write property %s with value %s", write.name().c_str(), write.value().c_str());
        response.mutable_property_message()->mutable_write_response();
    } else {
        const std::string& name = request.property_message().read_request().name();
        char value[PROPERTY_VALUE_MAX] = "";
        if (__system_property_find(name.c_str()) != nullptr) {
            property_get(name.c_str(), value, "");
            ALOGI("Read property %s with value %s", name.c_str(), value);
        } else {
            ALOGE("Failed to read property %s", name.c_str());
            response.set_result(velmar_message::PROPERTY_FAILURE);
        }
        response.mutable_property_message()->mutable_read_response()->set_value(value);
    }
    Respond(channel, request.token(), &response);
}

void HandleTemperatures(int channel, const VelmarMessage& request) {
    ALOGI("Got modem temperature request");
    const int fd = open("/sys/devices/platform/cp-tm1/cp_temp",
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kStoredMode);
    for (const auto& reading : request.modem_temperature_message().set_request().sensors()) {
        ALOGD("Temp sensor %d - Update %d - Temperature %d", static_cast<int>(reading.sensor()),
              reading.update() ? 1 : 0, static_cast<int>(reading.temperature()));
        WriteTo(fd, std::to_string(reading.sensor()) + (reading.update() ? " 1 " : " 0 ") +
                            std::to_string(reading.temperature()) + "\n");
    }
    close(fd);
    VelmarMessage response;
    response.mutable_modem_temperature_message()->mutable_set_response();
    Respond(channel, request.token(), &response);
}

}  // namespace

void HandleBare(int channel, const char* data, int length) {
    // Behind the type, and the token of a request.
    if (data[2] == kFileMessageTag || data[4] == kFileMessageTag)
        return HandleChunk(channel, ScanChunk(data, length));
    VelmarMessage message;
    message.ParseFromArray(data, length);
    switch (message.payload_case()) {
        case VelmarMessage::kPropertyMessage:
            return HandleProperty(channel, message);
        case VelmarMessage::kModemTemperatureMessage:
            return HandleTemperatures(channel, message);
        case VelmarMessage::kModemStatMessage:
            return HandleReport(message.modem_stat_message().report_indication());
        case VelmarMessage::kExtendedLogMessage:
            return HandleExtendedLog(message.extended_log_message().indication());
        case VelmarMessage::kUserspaceLogMessage:
            ALOGI("Got userspace log indication");
            ALOGI("Modem: %s", message.userspace_log_message().indication().text().c_str());
            return;
        default:
            // A response that nobody awaits.
            return;
    }
}

}  // namespace velmar_bench
