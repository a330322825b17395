#include "fuzz_phone.h"

#include <fcntl.h>
#include <google/protobuf/stubs/logging.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "android-base/file.h"
#include "android-base/stringprintf.h"

#include "handler/velmar_message_handler.h"
#include "require.h"
#include "sim/modem/device_socket.h"
#include "sim/modem/phone_folder.h"

using android::base::unique_fd;
using velmar_message::VelmarMessage;

namespace {

namespace fs = std::filesystem;

// The umask of the process, which must not show in the modes of files.
constexpr mode_t kUmask = 077;
constexpr size_t kMaxResponse = 4096;

// All that is in a phone, each file and directory as "MODE PATH CONTENT".
using Files = std::set<std::string>;

// Files that begin so may come and go as the modem pleases.
constexpr const char* kWritable[] = {
        "100664 /data/vendor/radio/modem_temp_file/",
        "100666 /data/vendor/radio/mds/",
        "100666 /mnt/vendor/modem_userdata/replay/",
        "100664 /data/vendor/radio/extended_logs/extended_log_",
        "100664 /data/vendor/modem_stat/debug.txt",
        "100660 /sys/devices/platform/cp-tm1/cp_temp",
        "100660 /properties/",
        "100644 /properties/",
};

constexpr char kTransferred[] = "/data/vendor/radio/mds/f";
constexpr char kTransfer[] = "1 0 8 f contents";
constexpr uint32_t kToken = 9;

bool IsWritable(const std::string& file) {
    return std::any_of(std::begin(kWritable), std::end(kWritable),
                       [&](const char* begin) { return file.rfind(begin, 0) == 0; });
}

Files ReadFiles(const std::string& root) {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string& path = entry.path().native();
        struct stat status = {};
        std::string content;
        lstat(path.c_str(), &status);
        android::base::ReadFileToString(path, &content);
        files.insert(android::base::StringPrintf("%o ", status.st_mode) + path.substr(root.size()) +
                     " " + content);
    }
    return files;
}

class OpenMonitor : public ModemStateMonitor {
  public:
    explicit OpenMonitor(VelmarMessageHandler* message_handler)
        : ModemStateMonitor(message_handler) {
        boot_fd = open(velmar_phone::kBootDevice, O_RDWR | O_CLOEXEC);
    }
};

// All parts of the service but its threads, and a few requests outstanding.
class FuzzHandler : public VelmarMessageHandler {
  public:
    FuzzHandler() {
        state_monitor = std::make_unique<OpenMonitor>(this);
        io_handler = std::make_unique<SitIoHandler>(this);
        service_handler = std::make_unique<VelmarServiceHandler>(this);
        request_list = new RequestList();
        for (unsigned int token = 0; token < 4; ++token) {
            RequestRecord record(token);
            request_list.load()->AddRecord(&record);
        }
    }

    // Keeps the request instead of sending it.
    int SendRequest(SitMessage* message, unsigned int /*timeout_seconds*/) override {
        requests.push_back(*message->GetVelmarMessage());
        return kStatusTimeout;
    }

    std::vector<VelmarMessage> requests;
};

// The phone and the service in it. Nothing else lies in the folder that holds the phone's own.
class FuzzPhone {
  public:
    FuzzPhone() {
        google::protobuf::SetLogHandler(nullptr);
        umask(kUmask);
        Fill();
        // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread.
        setenv(velmar_phone::kRootVariable, root.c_str(), 1);
        const unique_fd boot = velmar_sim::ListenAt(root + velmar_phone::kBootDevice);
        const unique_fd listener = velmar_sim::ListenAt(root + velmar_phone::kChannelDevice);
        service = new FuzzHandler();
        // The first response opens the channel. What is open stays so without the devices' files.
        Receive(transfer);
        channel.reset(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        char response[kMaxResponse];
        Require(recv(channel, response, kMaxResponse, 0) > 0, "no response at first");
        Fill();
        files_at_boot = ReadFiles(root);
    }

    void Deliver(const std::vector<std::string>& messages) {
        bool has_slash = false;
        for (const std::string& message : messages) {
            Receive(message);
            has_slash |= message.find('/') != std::string::npos;
        }
        // Whatever has come before, a transfer from offset 0 succeeds.
        Receive(transfer);
        Require(folder->ReadFile(kTransferred) == "contents" && folder->Mode(kTransferred) == 0666,
                "not stored whole with the mode 0666:", kTransferred);
        folder->Remove(kTransferred);
        CheckFiles(has_slash);
    }

    std::optional<velmar_sim::PhoneFolder> folder;
    // Never freed: the process has it for life, as the real one has.
    FuzzHandler* service = nullptr;

  private:
    void Fill() {
        fs::remove_all(root);
        folder.emplace(root);
        folder->MapState()->boot_state = kModemStateOnline;
        folder->SetProperty("a.set", "on");
        folder->RefuseProperty("a.refused");
    }

    void Receive(const std::string& bytes) const {
        VelmarMessage message;
        // What is decoded before an error stays, for the service too.
        (void)message.ParseFromString(bytes);
        // The service deliberately never frees a message of no type, and does nothing with it.
        if (message.type() == velmar_message::UNKNOWN_TYPE) return;
        // Of its exact size, so that AddressSanitizer sees what is read behind it.
        std::vector<char> received(bytes.begin(), bytes.end());
        received.shrink_to_fit();
        const int status = service->ProcessReceivedMessage(received.data(), received.size());
        Require(status >= kStatusSuccess && status <= kStatusRefused && status != 6, "no status");
        char buffer[kMaxResponse];
        ssize_t size;
        for (int n = 0; (size = recv(channel, buffer, kMaxResponse, MSG_DONTWAIT)) > 0; ++n) {
            VelmarMessage response;
            Require(n == 0, "more than one response");
            Require(response.ParseFromArray(buffer, static_cast<int>(size)) &&
                            message.type() == velmar_message::REQUEST &&
                            response.type() == velmar_message::RESPONSE &&
                            response.has_token() == message.has_token() &&
                            response.token() == message.token() &&
                            response.message_id() == message.payload_case() &&
                            response.payload_case() == message.payload_case(),
                    "not the response to the message");
        }
    }

    // A name without a '/' leads into no other directory; one with it can even close a directory.
    void CheckFiles(bool has_slash) {
        if (has_slash) chmod((root + "/mnt/vendor/modem_userdata").c_str(), S_IRWXU | S_IRWXG);
        Require(std::distance(fs::directory_iterator(parent.path()), {}) == 1, "outside the phone");
        const Files files = ReadFiles(root);
        std::vector<std::string> changed;
        std::set_symmetric_difference(files.begin(), files.end(), files_at_boot.begin(),
                                      files_at_boot.end(), std::back_inserter(changed));
        for (const std::string& file : changed) {
            Require(has_slash || IsWritable(file), "changed, or has a wrong mode:", file);
        }
        if (!changed.empty()) Fill();
    }

    const velmar_sim::TemporaryFolder parent;
    const std::string root = parent.path() + "/phone";
    Files files_at_boot;
    unique_fd channel;
    const std::string transfer = EncodeChunk(kTransfer);
};

FuzzPhone& Phone() {
    static FuzzPhone phone;
    return phone;
}

}  // namespace

std::string EncodeChunk(const std::string& line) {
    VelmarMessage message;
    message.set_type(velmar_message::REQUEST);
    message.set_token(kToken);
    auto* write = message.mutable_file_message()->mutable_file_write_request();
    uint32_t numbers[3] = {};
    std::istringstream(line) >> numbers[0] >> numbers[1] >> numbers[2] >>
            *write->mutable_file_name() >> *write->mutable_data();
    write->set_file_dir(static_cast<velmar_message::FileDirectory>(numbers[0] % 4));
    write->set_offset(numbers[1]);
    write->set_max_data_size(numbers[2]);
    return message.SerializeAsString();
}

void DeliverToService(const std::vector<std::string>& messages) {
    Phone().Deliver(messages);
}

std::vector<VelmarMessage> RequestsFor(const std::string& path, const std::string& content,
                                       unsigned int command) {
    Phone().folder->WriteFile(path, content);
    Phone().service->requests.clear();
    Require(Phone().service->SendServiceRequest(command) == kStatusSuccess, "the command failed");
    return Phone().service->requests;
}
