#include "fuzz_phone.h"

#include <android/log.h>
#include <fcntl.h>
#include <google/protobuf/stubs/logging.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <filesystem>
#include <memory>

#include "fuzz_failure.h"
#include "sim/modem/device_socket.h"
#include "sim/phone/phone_state.h"

using android::base::unique_fd;

// The service's clock stands still: what it writes depends on its input alone.
extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    *now = {1700000000, 123456};
    return 0;
}

namespace {

constexpr char kPhoneName[] = "/phone";

std::string& LastLogLine() {
    static std::string line;
    return line;
}

void KeepLogLine(const __android_logger_data* data, const char* line) {
    LastLogLine().assign(1, static_cast<char>('0' + data->priority)).append(" ").append(line);
}

// Has the boot device open, without the thread that follows it.
class OpenMonitor : public ModemStateMonitor {
  public:
    explicit OpenMonitor(VelmarMessageHandler* message_handler)
        : ModemStateMonitor(message_handler) {
        boot_fd = open(velmar_phone::kBootDevice, O_RDWR | O_CLOEXEC);
        if (GetModemState() != kModemStateOnline) FailFuzzing("the modem is not online");
    }
};

// What the phone holds at boot beside its directories.
void FillPhone(const velmar_sim::PhoneFolder& folder) {
    velmar_phone::PhoneState state = {};
    state.boot_state = kModemStateOnline;
    folder.WriteFile(velmar_phone::kStateFile,
                     std::string(reinterpret_cast<const char*>(&state), sizeof(state)));
    folder.SetProperty("a.set", "on");
    folder.SetProperty("a.empty", "");
    folder.RefuseProperty("a.refused");
    folder.WriteFile("/vendor/etc/modem_stat.conf", "vendor:v=1");
}

}  // namespace

FuzzHandler::FuzzHandler() {
    state_monitor = std::make_unique<OpenMonitor>(this);
    io_handler = std::make_unique<SitIoHandler>(this);
    service_handler = std::make_unique<VelmarServiceHandler>(this);
    request_list = new RequestList();
    ResetRequests();
}

int FuzzHandler::SendRequest(SitMessage* message, unsigned int /*timeout_seconds*/) {
    requests.push_back(*message->GetVelmarMessage());
    return kStatusTimeout;
}

void FuzzHandler::ResetRequests() {
    requests.clear();
    request_list.load()->CleanRecord();
    for (const uint32_t token : kOutstandingTokens) {
        RequestRecord record(token);
        request_list.load()->AddRecord(&record);
    }
}

FuzzPhone& FuzzPhone::Get() {
    static FuzzPhone phone;
    return phone;
}

FuzzPhone::FuzzPhone() : phone_folder(parent_folder.path() + kPhoneName) {
    __android_log_set_logger(KeepLogLine);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    google::protobuf::SetLogHandler(nullptr);
    FillPhone(phone_folder);
    boot_listener = velmar_sim::ListenAt(phone_folder.HostPath(velmar_phone::kBootDevice));
    const unique_fd channel_listener =
            velmar_sim::ListenAt(phone_folder.HostPath(velmar_phone::kChannelDevice));
    umask(kUmask);
    // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread.
    setenv(velmar_phone::kRootVariable, phone_folder.root().c_str(), 1);
    setenv("TZ", "UTC", 1);
    // NOLINTEND(concurrency-mt-unsafe)
    service = new FuzzHandler();
    // The service opens its channel at its first answer.
    Deliver(std::string("\x08\x01\x52\x02\x0A\x00", 6));
    channel.reset(accept4(channel_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (TakeAnswers().size() != 1) FailFuzzing("the service does not answer at first");
    files_at_boot = ReadFiles();
    Reset(files_at_boot);
}

int FuzzPhone::Deliver(const std::string& bytes) {
    // Of its exact size, so that AddressSanitizer sees what is read behind it.
    std::vector<char> received(bytes.begin(), bytes.end());
    received.shrink_to_fit();
    SitMessage decoded(received.data(), static_cast<int>(received.size()));
    // The service deliberately never frees a message of no type, and does nothing with it.
    if (decoded.GetType() == velmar_message::UNKNOWN_TYPE) return kStatusUnsupported;
    return service->ProcessReceivedMessage(received.data(), received.size());
}

std::vector<std::string> FuzzPhone::TakeAnswers() {
    // More than the service ever writes at once.
    static std::vector<char> buffer(1 << 17);
    std::vector<std::string> answers;
    while (true) {
        const ssize_t size = recv(channel.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 1) return answers;
        answers.emplace_back(buffer.data(), size);
    }
}

const std::string& FuzzPhone::last_log_line() const {
    return LastLogLine();
}

FileTree FuzzPhone::ReadFiles() const {
    using std::filesystem::directory_iterator;
    if (std::distance(directory_iterator(parent_folder.path()), directory_iterator()) != 1) {
        FailFuzzing("the service changed something outside the phone, in " + parent_folder.path());
    }
    return ReadTree(phone_folder.root(), files_at_boot);
}

void FuzzPhone::Reset(const FileTree& now) {
    RestoreTree(phone_folder.root(), now, files_at_boot);
    service->ResetRequests();
}
