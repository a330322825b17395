// A stand-in for the radio's client library, for a simulated phone: it talks to no radio but
// records what it is asked for and answers as it is told (radio_layout.h).

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

#include "sim/ril/behaviour.h"
#include "sim/ril/radio_layout.h"

namespace velmar_radio {

namespace {

using ResponseCallback = void (*)(unsigned int request, int error, void* data, size_t length,
                                  unsigned int extra);
using UnsolicitedCallback = void (*)(unsigned int id, void* data, size_t length,
                                     unsigned int extra);

constexpr mode_t kCallsMode = 0660;
constexpr char kHexDigits[] = "0123456789abcdef";

// Its address is the handle of every client.
char client_handle;

// A radio that was told nonsense must not look like one that works.
[[noreturn]] void Die(const std::string& fault) {
    (void)fprintf(stderr, "libsitril-client: %s\n", fault.c_str());
    abort();
}

std::string PathOf(const char* file) {
    // Reads only; a program that changes its environment while other threads run races anyway.
    const char* root = getenv("VELMAR_PHONE_ROOT");  // NOLINT(concurrency-mt-unsafe)
    if (root == nullptr) Die("expected the phone's folder in VELMAR_PHONE_ROOT");
    return std::string(root) + file;
}

std::string BehaviourText() {
    std::ifstream stream(PathOf(kBehaviourFile), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

Behaviour BehaviourFrom(const std::string& text) {
    Behaviour behaviour;
    std::string fault;
    if (!ParseBehaviour(text, &behaviour, &fault)) Die(PathOf(kBehaviourFile) + ":" + fault);
    return behaviour;
}

void Record(const std::string& call) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(now);
    const std::string line = std::to_string(time.count()) + " " + call + "\n";
    const std::string path = PathOf(kCallsFile);
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kCallsMode);
    if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        Die("cannot write " + path);
    }
    close(fd);
}

std::string Client(const void* handle) {
    if (handle == nullptr) return " client=null";
    return handle == &client_handle ? " client=open" : " client=unknown";
}

std::string Hex(const void* data, size_t length) {
    if (data == nullptr) return "null";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char byte = static_cast<const unsigned char*>(data)[i];
        text += {kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
    }
    return text;
}

std::string Numbers(const int* numbers, size_t size) {
    if (numbers == nullptr) return "null";
    std::string text;
    for (size_t i = 0; i < size; ++i) text += (i == 0 ? "" : ",") + std::to_string(numbers[i]);
    return text;
}

void* Open(const std::string& call) {
    Record(call);
    return BehaviourFrom(BehaviourText()).opens ? &client_handle : nullptr;
}

int Call(const std::string& call) {
    Record(call);
    return BehaviourFrom(BehaviourText()).result;
}

// The answer to the next request.
Answer NextAnswer() {
    static std::mutex lock;
    static auto* seen = new std::string;
    static size_t requests = 0;
    const std::lock_guard<std::mutex> guard(lock);
    const std::string text = BehaviourText();
    if (text != *seen) requests = 0;
    *seen = text;
    return AnswerTo(BehaviourFrom(text), requests++);
}

}  // namespace

extern "C" {

void* RILC_Open() {
    return Open("RILC_Open");
}

void* RILC_OpenV2(const char* name) {
    return Open(std::string("RILC_OpenV2 name=") + (name == nullptr ? "null" : name));
}

int RILC_Close(void* client) {
    return Call("RILC_Close" + Client(client));
}

int RILC_Reconnect(void* client) {
    return Call("RILC_Reconnect" + Client(client));
}

int RILC_RegisterUnsolicitedHandler(void* client, UnsolicitedCallback handler) {
    return Call("RILC_RegisterUnsolicitedHandler" + Client(client) +
                " handler=" + (handler == nullptr ? "null" : "set"));
}

int RILC_Send(void* client, unsigned int request, void* data, size_t length,
              ResponseCallback callback, unsigned int extra) {
    const int result = Call("RILC_Send" + Client(client) + " request=" + std::to_string(request) +
                            " extra=" + std::to_string(extra) + " data=" + Hex(data, length));
    const Answer answer = NextAnswer();
    if (callback == nullptr || !answer.comes) return result;
    const auto respond = [=] {
        std::this_thread::sleep_for(answer.delay);
        for (int times = answer.twice ? 2 : 1; times > 0; --times) {
            callback(request, answer.error, nullptr, 0, extra);
        }
    };
    if (answer.early) {
        respond();
    } else {
        std::thread(respond).detach();
    }
    return result;
}

int RILC_SetIndicationFilter(void* client, int* filter, size_t size) {
    return Call("RILC_SetIndicationFilter" + Client(client) + " filter=" + Numbers(filter, size));
}

}  // extern "C"

}  // namespace velmar_radio
