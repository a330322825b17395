// The entry points of liblog that the phone's programs import. With a phone each line goes to its
// log socket, in the form in which liblog writes to logd; without one it goes on to liblog.
//
// liblog's own headers are left out: each of its releases declares only one of the two entry points
// by which libbase logs.

#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <type_traits>

#include <android-base/unique_fd.h>

#include "device.h"
#include "phone.h"

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): liblog's names.

// What libbase hands over in release 29, its text apart, and since release 30, with it.
struct __android_logger_data {
    size_t struct_size;
    int32_t buffer_id;
    int32_t priority;
    const char* tag;
    const char* file;
    uint32_t line;
};
struct __android_log_message {
    __android_logger_data data;
    const char* text;
};

namespace velmar_phone {
namespace {

// liblog cuts longer lines, with their final null.
constexpr size_t kMaxText = 1024;
// How long a line waits for room at a log that is not read.
constexpr timeval kPatience = {1, 0};

// In the place of a descriptor: the phone has no log, and gets none.
constexpr int kNoLog = -2;

constexpr uint8_t kMainBuffer = 0;
constexpr uint8_t kWarning = 5;
constexpr char kTag[] = "velmar_phone";

struct [[gnu::packed]] LogHeader {
    uint8_t buffer;
    uint16_t thread;
    uint32_t seconds;
    uint32_t nanoseconds;
    uint8_t priority;
};

struct LogLine {
    int buffer;
    int priority;
    const char* tag;
    const char* text;
};

int Connect(Phone* phone) {
    PathText path = phone->root;
    if (!path.Append(kLogSocket)) return -1;
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int connected = -1;
    if (fd < 0 || !ConnectTo(fd, path)) {
        if (errno == ENOENT) phone->log.compare_exchange_strong(connected, kNoLog);
        return -1;
    }
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
    // Another thread may have been faster.
    if (!phone->log.compare_exchange_strong(connected, fd)) return connected;
    return fd.release();
}

// Writes one line; returns whether there is a log that had no room for it.
bool IsLost(Phone* phone, const LogLine& line, int flags) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    LogHeader header = {static_cast<uint8_t>(line.buffer), static_cast<uint16_t>(gettid()),
                        static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec),
                        static_cast<uint8_t>(line.priority)};
    iovec parts[] = {{&header, sizeof(header)},
                     {const_cast<char*>(line.tag), strlen(line.tag) + 1},
                     {const_cast<char*>(line.text), strlen(line.text) + 1}};
    msghdr datagram = {};
    datagram.msg_iov = parts;
    datagram.msg_iovlen = 3;
    for (int tries = 0; tries < 2; ++tries) {
        int fd = phone->log;
        if (fd < 0) fd = Connect(phone);
        if (fd < 0 || TEMP_FAILURE_RETRY(sendmsg(fd, &datagram, MSG_NOSIGNAL | flags)) >= 0) break;
        if (errno == EAGAIN) return true;
        // Whoever read the log has gone; somebody else may have come.
        if (phone->log.compare_exchange_strong(fd, -1)) close(fd);
    }
    return false;
}

// The first line that finds no room waits for it; those after it are dropped and counted until
// there is room again, so that a log that nobody reads stops no program.
void Write(Phone* phone, LogLine line) {
    if (phone->log == kNoLog) return;
    const int saved_errno = errno;
    // LOG_ID_DEFAULT, -1, is the main buffer too.
    if (line.buffer < 0) line.buffer = kMainBuffer;
    if (line.tag == nullptr) line.tag = "";
    const int lost = phone->lost_lines.exchange(0);
    if (lost > 0) {
        char text[kMaxText];
        (void)snprintf(text, sizeof(text), "%d lines lost: the log was not read", lost);
        if (IsLost(phone, {kMainBuffer, kWarning, kTag, text}, MSG_DONTWAIT)) {
            phone->lost_lines += lost + 1;
            errno = saved_errno;
            return;
        }
    }
    if (IsLost(phone, line, lost > 0 ? MSG_DONTWAIT : 0)) ++phone->lost_lines;
    errno = saved_errno;
}

// The next functions of these names, which are liblog's own. Looked up as the library is loaded,
// since the linker's lock is not for signal handlers.
struct NextCalls {
    int (*write)(int, int, const char*, const char*);
    void (*write_data)(__android_logger_data*, const char*);
    void (*write_message)(__android_log_message*);
};
NextCalls g_next;

[[gnu::constructor]] void FindNextCalls() {
    const auto find = [](const char* name, auto* call) {
        *call = reinterpret_cast<std::remove_reference_t<decltype(*call)>>(dlsym(RTLD_NEXT, name));
    };
    find("__android_log_buf_write", &g_next.write);
    find("__android_log_write_logger_data", &g_next.write_data);
    find("__android_log_write_log_message", &g_next.write_message);
}

int Print(int buffer, int priority, const char* tag, const char* format, va_list arguments) {
    char text[kMaxText];
    (void)vsnprintf(text, sizeof(text), format, arguments);
    Phone* phone = CurrentPhone();
    if (phone == nullptr) return g_next.write(buffer, priority, tag, text);
    Write(phone, {buffer, priority, tag, text});
    return 1;
}

}  // namespace
}  // namespace velmar_phone

#pragma GCC visibility push(default)
extern "C" {

using namespace velmar_phone;

int __android_log_buf_print(int buffer, int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = Print(buffer, priority, tag, format, arguments);
    va_end(arguments);
    return result;
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = Print(kMainBuffer, priority, tag, format, arguments);
    va_end(arguments);
    return result;
}

void __android_log_write_logger_data(__android_logger_data* data, const char* text) {
    Phone* phone = CurrentPhone();
    if (phone == nullptr) return g_next.write_data(data, text);
    Write(phone, {data->buffer_id, data->priority, data->tag, text});
}

void __android_log_write_log_message(__android_log_message* message) {
    Phone* phone = CurrentPhone();
    if (phone == nullptr) return g_next.write_message(message);
    Write(phone,
          {message->data.buffer_id, message->data.priority, message->data.tag, message->text});
}

}  // extern "C"
#pragma GCC visibility pop
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
