#include "sim/modem/device_socket.h"

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

using android::base::unique_fd;

constexpr int kListenBacklog = 64;

unique_fd MakeSocket(int type) {
    unique_fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (fd < 0) ThrowErrno("socket");
    return fd;
}

// Calls `bind` or `connect` with the address of `host_path`. An address holds 107 bytes and a path
// may have more, so it leads there from the descriptor of the folder.
void CallWithAddress(int (*call)(int, const sockaddr*, socklen_t), const unique_fd& fd,
                     const std::string& host_path) {
    const size_t name = host_path.rfind('/') + 1;
    const unique_fd folder(
            open(host_path.substr(0, name).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder < 0) ThrowErrno("open " + host_path.substr(0, name));
    const std::string path =
            "/proc/self/fd/" + std::to_string(folder.get()) + "/" + host_path.substr(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (call(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ThrowErrno("socket " + host_path);
    }
}

unique_fd BindTo(const std::string& host_path, int type) {
    unique_fd fd = MakeSocket(type | SOCK_NONBLOCK);
    unlink(host_path.c_str());
    CallWithAddress(bind, fd, host_path);
    return fd;
}

}  // namespace

unique_fd ListenAt(const std::string& host_path) {
    unique_fd listener = BindTo(host_path, SOCK_SEQPACKET);
    if (listen(listener.get(), kListenBacklog) != 0) ThrowErrno("listen " + host_path);
    return listener;
}

unique_fd ReceiveAt(const std::string& host_path) {
    return BindTo(host_path, SOCK_DGRAM);
}

unique_fd ConnectTo(const std::string& host_path) {
    unique_fd fd = MakeSocket(SOCK_SEQPACKET);
    CallWithAddress(connect, fd, host_path);
    return fd;
}

}  // namespace velmar_sim
