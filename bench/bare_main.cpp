// The processes that the service is measured against. They link what it links.
//   velmar_bare idle   does nothing
//   velmar_bare fixed  responds to each message with the same bytes
//   velmar_bare serve  does for each message what cannot be left out

#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <string>

#include "bench/bare_service.h"

namespace {

constexpr int kBufferSize = 65568;
// The property with token 7 is not set.
constexpr char kResponse[] = "\x08\x02\x10\x07\x18\x07\x20\x07\x3a\x04\x12\x02\x0a\x00";
constexpr unsigned int kGetModemState = 0x6F27;

// Waits for each message and reads it as the service does.
int Serve(int boot, int channel, bool is_fixed) {
    static char buffer[kBufferSize];
    while (ioctl(boot, kGetModemState) >= 0) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(channel, &readable);
        if (select(channel + 1, &readable, nullptr, nullptr, nullptr) < 1) break;
        const ssize_t length = read(channel, buffer, sizeof(buffer));
        if (length < 1) break;
        if (!is_fixed) {
            velmar_bench::HandleBare(channel, buffer, static_cast<int>(length));
        } else if (write(channel, kResponse, sizeof(kResponse) - 1) < 0) {
            break;
        }
    }
    perror("velmar_bare");
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc == 2 ? argv[1] : "";
    if (mode == "idle") return pause();
    if (mode == "fixed" || mode == "serve") {
        return Serve(open("/dev/umts_boot0", O_RDWR), open("/dev/oem_ipc1", O_RDWR),
                     mode == "fixed");
    }
    (void)fputs("velmar_bare: expected one argument: idle, fixed or serve\n", stderr);
    return 2;
}
