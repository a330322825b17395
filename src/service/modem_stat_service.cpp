#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/log.h"
#include "base/velmar_status.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using android::base::unique_fd;
using velmar_message::ModemStatReportIndication;

namespace {

constexpr char kDumpFile[] = "/data/vendor/modem_stat/debug.txt";
constexpr mode_t kDumpMode = 0664;

constexpr ExchangeLines kReportLines = {"Sending modemstat report request",
                                        "Got modemstat report response successful",
                                        "Got modemstat report response failed"};
constexpr ExchangeLines kEnableLines = {"Sending modemstat enable request",
                                        "Got modemstat enable response successful",
                                        "Got modemstat enable response failed"};

// Opens the dump where the piece is to be written. No offset: truncates it. Offset 0: from the
// start, without truncating. Any other: appends, whatever its value.
unique_fd OpenDump(const ModemStatReportIndication& report) {
    if (!report.has_offset()) {
        return unique_fd(open(kDumpFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kDumpMode));
    }
    unique_fd dump(open(kDumpFile, O_RDWR | O_CLOEXEC));
    if (dump.ok() && lseek(dump.get(), report.offset(), SEEK_SET) != 0) {
        lseek(dump.get(), 0, SEEK_END);
    }
    return dump;
}

}  // namespace

int VelmarServiceHandler::SendModemStatReportRequest() {
    if (!CheckModemOnline()) return kStatusOffline;
    VelmarModemStatMessage request(velmar_message::REQUEST);
    request.FillReportRequest();
    int status = ExchangeRequest(request.GetSitMessage(), kReportLines);
    // A report that the modem refuses deliberately counts as done, unlike every other request.
    return status == kStatusRefused ? kStatusSuccess : status;
}

int VelmarServiceHandler::SendModemStatEnableRequest(const std::string& module, int value,
                                                     unsigned int type) {
    if (!CheckModemOnline()) return kStatusOffline;
    VelmarModemStatMessage request(velmar_message::REQUEST);
    // A request that could not be filled goes out with its header only.
    request.FillEnableRequest(module, value, type);
    return ExchangeRequest(request.GetSitMessage(), kEnableLines);
}

int VelmarServiceHandler::OnReceiveModemStatReportIndication(SitMessage* message) {
    if (message == nullptr || message->GetVelmarMessage() == nullptr ||
        !message->GetVelmarMessage()->modem_stat_message().has_report_indication()) {
        return kStatusInvalid;
    }
    const ModemStatReportIndication& report =
            message->GetVelmarMessage()->modem_stat_message().report_indication();
    if (!report.has_data()) return kStatusInvalid;
    unique_fd dump = OpenDump(report);
    if (!dump.ok()) {
        ALOGE("Failed to open modemstat dump file");
        return kStatusSuccess;
    }
    [[maybe_unused]] ssize_t written =
            write(dump.get(), report.data().data(), report.data().size());
    dump.reset();
    // The umask may have taken bits away.
    chmod(kDumpFile, kDumpMode);
    return kStatusSuccess;
}
