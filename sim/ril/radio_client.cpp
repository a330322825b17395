// A stand-in for the radio's client library, for a simulated phone: it talks to no radio but
// records what it is asked for and responds as it is told (radio_layout.h).

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "android-base/file.h"
#include "android-base/unique_fd.h"
#include "google/protobuf/text_format.h"

#include "sim/ril/radio.pb.h"
#include "sim/ril/radio_layout.h"

namespace velmar_radio {

namespace {

using velmar_sim::Radio;
using velmar_sim::RadioCall;
using velmar_sim::RadioResponse;

using ResponseCallback = void (*)(unsigned int request, int error, void* data, size_t length,
                                  unsigned int extra);
using UnsolicitedCallback = void (*)(unsigned int id, void* data, size_t length,
                                     unsigned int extra);

constexpr mode_t kCallsMode = 0660;

// Its address is the handle of every client.
char client_handle;

// A radio that was told nonsense must not look like one that works.
[[noreturn]] void Die(const std::string& error) {
    (void)fprintf(stderr, "libsitril-client: %s\n", error.c_str());
    abort();
}

std::string PathOf(const char* file) {
    // Reads only; a program that changes its environment while other threads run races anyway.
    const char* root = getenv("VELMAR_PHONE_ROOT");  // NOLINT(concurrency-mt-unsafe)
    if (root == nullptr) Die("expected the phone's folder in VELMAR_PHONE_ROOT");
    return std::string(root) + file;
}

Radio ParseRadio(const std::string& text) {
    Radio radio;
    // What is wrong with it is in protobuf's own message on standard error.
    if (google::protobuf::TextFormat::ParseFromString(text, &radio)) return radio;
    Die(PathOf(kRadioFile) + ": expected a velmar_sim.Radio in text form");
}

std::string ReadRadio() {
    std::string text;
    android::base::ReadFileToString(PathOf(kRadioFile), &text);
    return text;
}

RadioCall NewCall(const char* function) {
    RadioCall call;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    call.set_time_us(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
    call.set_function(function);
    return call;
}

RadioCall NewCall(const char* function, const void* client) {
    RadioCall call = NewCall(function);
    const char* opened = client == &client_handle ? "open" : "unknown";
    call.set_client(client == nullptr ? "null" : opened);
    return call;
}

void Record(const RadioCall& call) {
    const std::string line = call.ShortDebugString() + "\n";
    const std::string path = PathOf(kCallsFile);
    const android::base::unique_fd fd(
            open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kCallsMode));
    // A late response may find that the phone is gone, and with it whoever would read this.
    if (fd < 0 && errno == ENOENT) return;
    if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        Die("cannot write " + path);
    }
}

void* Open(const RadioCall& call) {
    Record(call);
    return ParseRadio(ReadRadio()).no_client() ? nullptr : &client_handle;
}

int RecordAndReturn(const RadioCall& call) {
    Record(call);
    return ParseRadio(ReadRadio()).result();
}

// The response to the next request.
RadioResponse NextResponse() {
    static std::mutex lock;
    static auto* seen = new std::string;
    static int requests = 0;
    const std::lock_guard<std::mutex> guard(lock);
    const std::string text = ReadRadio();
    const Radio radio = ParseRadio(text);
    if (text != *seen) requests = 0;
    *seen = text;
    const int index = std::min(requests++, radio.answer_size() - 1);
    return index < 0 ? RadioResponse() : radio.answer(index);
}

}  // namespace

extern "C" {

void* RILC_Open() {
    return Open(NewCall("RILC_Open"));
}

void* RILC_OpenV2(const char* name) {
    RadioCall call = NewCall("RILC_OpenV2");
    if (name != nullptr) call.set_name(name);
    return Open(call);
}

int RILC_Close(void* client) {
    return RecordAndReturn(NewCall("RILC_Close", client));
}

int RILC_Reconnect(void* client) {
    return RecordAndReturn(NewCall("RILC_Reconnect", client));
}

int RILC_RegisterUnsolicitedHandler(void* client, UnsolicitedCallback handler) {
    RadioCall call = NewCall("RILC_RegisterUnsolicitedHandler", client);
    call.set_has_handler(handler != nullptr);
    return RecordAndReturn(call);
}

int RILC_Send(void* client, unsigned int request, void* data, size_t length,
              ResponseCallback callback, unsigned int extra) {
    RadioCall call = NewCall("RILC_Send", client);
    call.mutable_request()->set_request(request);
    call.mutable_request()->set_data(data, data == nullptr ? 0 : length);
    call.set_extra(extra);
    const int result = RecordAndReturn(call);
    const RadioResponse response = NextResponse();
    if (callback == nullptr || response.none()) return result;
    const auto respond = [=] {
        std::this_thread::sleep_for(std::chrono::milliseconds(response.delay_ms()));
        for (int times = response.twice() ? 2 : 1; times > 0; --times) {
            RadioCall done = NewCall("response");
            done.set_response_to(request);
            done.set_error(response.error());
            Record(done);
            callback(request, response.error(), nullptr, 0, extra);
        }
    };
    if (response.early()) {
        respond();
    } else {
        std::thread(respond).detach();
    }
    return result;
}

int RILC_SetIndicationFilter(void* client, int* filter, size_t size) {
    RadioCall call = NewCall("RILC_SetIndicationFilter", client);
    if (filter != nullptr) call.mutable_filter()->Add(filter, filter + size);
    return RecordAndReturn(call);
}

}  // extern "C"

}  // namespace velmar_radio
