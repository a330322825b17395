#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "base/log.h"
#include "base/velmar_status.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using android::base::StringPrintf;
using android::base::unique_fd;
using android::base::WriteStringToFd;
using velmar_message::ExtendedLogIndication;

namespace {

constexpr char kLogPrefix[] = "/data/vendor/radio/extended_logs/extended_log_";
constexpr char kLogSuffix[] = ".txt";
constexpr char kOldSuffix[] = ".old";
constexpr mode_t kLogMode = 0664;

// Size in bytes above which a log is rotated.
constexpr off_t kExtendedLogMaxSize = 1048576;

constexpr size_t kTimeStampSize = 30;
constexpr long kMicrosecondsPerMillisecond = 1000;

constexpr ExchangeLines kLogLines = {"Sending extended log request",
                                     "Got extended log response successful",
                                     "Got extended log response failed"};

// Renames a log that has grown too large, replacing the one renamed before. If that fails, the log
// stays and grows on.
void Rotate(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || status.st_size <= kExtendedLogMaxSize) return;
    const std::string old_path = path + kOldSuffix;
    (void)unlink(old_path.c_str());
    (void)rename(path.c_str(), old_path.c_str());
}

void WriteTimeStamp(int fd, const timeval& now) {
    tm local;
    if (localtime_r(&now.tv_sec, &local) == nullptr) return;
    char text[kTimeStampSize];
    if (strftime(text, sizeof(text), "%m-%d %H:%M:%S", &local) == 0) return;
    long milliseconds = now.tv_usec / kMicrosecondsPerMillisecond;
    WriteStringToFd(StringPrintf("%s.%03ld\n", text, milliseconds), fd);
}

}  // namespace

int VelmarServiceHandler::SendExtendedLogRequest() {
    if (!CheckModemOnline()) return kStatusOffline;
    VelmarExtendedLogMessage request(velmar_message::REQUEST);
    request.FillRequest();
    return ExchangeRequest(request.GetSitMessage(), kLogLines);
}

int VelmarServiceHandler::OnReceiveExtendedLogIndication(SitMessage* message) {
    if (message == nullptr || message->GetVelmarMessage() == nullptr ||
        !message->GetVelmarMessage()->extended_log_message().has_indication()) {
        return kStatusInvalid;
    }
    const ExtendedLogIndication& log =
            message->GetVelmarMessage()->extended_log_message().indication();
    const std::string path = kLogPrefix + log.name() + kLogSuffix;
    Rotate(path);
    unique_fd file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kLogMode));
    if (!file.ok()) {
        ALOGE("Failed to open extended log file");
        return kStatusNotFound;
    }
    timeval now;
    gettimeofday(&now, nullptr);
    [[maybe_unused]] ssize_t written = write(file.get(), log.data().data(), log.data().size());
    // Without a final newline in the text the time stamp follows on the same line.
    WriteTimeStamp(file.get(), now);
    file.reset();
    // The umask may have taken bits away.
    chmod(path.c_str(), kLogMode);
    return kStatusSuccess;
}
