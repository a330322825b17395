// The processes that the service is measured against. They link what it links.
//   velmar_bare idle   does nothing
//   velmar_bare fixed  answers each message with the same bytes
//   velmar_bare serve  does for each message what cannot be left out

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <string>

#include "bench/bare_service.h"
#include "bench/messages.h"

namespace velmar_bench {

namespace {

constexpr int kBufferSize = 65568;
constexpr unsigned int kGetModemState = 0x6F27;

// Waits for each message and reads it as the service does.
template <typename Handler>
void ReadMessages(int boot, int channel, const Handler& handle) {
    static char buffer[kBufferSize];
    while (ioctl(boot, kGetModemState) >= 0) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(channel, &readable);
        if (select(channel + 1, &readable, nullptr, nullptr, nullptr) < 1) return;
        const ssize_t length = read(channel, buffer, sizeof(buffer));
        if (length < 1) return;
        handle(buffer, static_cast<int>(length));
    }
}

int Run(const std::string& mode) {
    if (mode == "idle") pause();
    const int boot = open("/dev/umts_boot0", O_RDWR);
    const int channel = open("/dev/oem_ipc1", O_RDWR);
    if (boot < 0 || channel < 0) {
        perror("velmar_bare: a device cannot be opened");
        return 1;
    }
    if (mode == "serve") {
        const BareService service(channel);
        ReadMessages(boot, channel,
                     [&](const char* data, int length) { service.Handle(data, length); });
    } else {
        const std::string answer = AnswerToAbsentPropertyRead().SerializeAsString();
        ReadMessages(boot, channel, [&](const char*, int) {
            [[maybe_unused]] const ssize_t sent = write(channel, answer.data(), answer.size());
        });
    }
    return 0;
}

}  // namespace

}  // namespace velmar_bench

int main(int argc, char** argv) {
    if (argc == 2) return velmar_bench::Run(argv[1]);
    (void)fputs("velmar_bare: expected one argument: idle, fixed or serve\n", stderr);
    return 2;
}
