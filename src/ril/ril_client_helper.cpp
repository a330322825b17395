#include "ril/ril_client_helper.h"

// Tag of the lines in the radio's log.
#define LOG_TAG "libsitril-client"

#include <dlfcn.h>
#include <log/log_radio.h>

namespace {

constexpr char kLibrary[] = "libsitril-client.so";
const char* const kClassName = "RilClientHelperDLImpl";

// The result of an operation when there is no library to call.
constexpr int kNotLoaded = 1;

constexpr unsigned int kUsualExtra = 255;

void LogCall(const char* operation) {
    RLOGI("%s::%s", kClassName, operation);
}

template <typename... Arguments>
int Forward(const void* library, int (*entry)(Arguments...), Arguments... arguments) {
    if (library == nullptr || entry == nullptr) return kNotLoaded;
    return entry(arguments...);
}

}  // namespace

RilClientHelper* RilClientHelper::GetInstance() {
    static RilClientHelper* instance;
    if (instance != nullptr) return instance;
    auto* created = new RilClientHelperDLImpl();
    RLOGI("%s::%s create instance", kClassName, "RilClientHelperDLImpl");
    instance = created;
    // Without the library the instance is kept; its operations then fail.
    (void)created->Init();
    return instance;
}

RilClientHelperDLImpl::~RilClientHelperDLImpl() {
    RLOGI("%s::%s release instance", kClassName, "~RilClientHelperDLImpl");
    RilClientHelperDLImpl::Release();
}

template <typename Entry>
bool RilClientHelperDLImpl::Bind(const char* symbol, Entry* entry) {
    *entry = reinterpret_cast<Entry>(dlsym(library, symbol));
    if (*entry != nullptr) return true;
    RLOGE("%s::%s error: dlsym failure(%s)", kClassName, "Init", symbol);
    return false;
}

bool RilClientHelperDLImpl::Init() {
    LogCall("Init");
    library = dlopen(kLibrary, RTLD_NOW);
    if (library == nullptr) {
        RLOGE("%s::%s error: dlopen failure", kClassName, "Init");
        return false;
    }
    bool complete = Bind("RILC_Open", &RILC_Open) && Bind("RILC_OpenV2", &RILC_OpenV2) &&
                    Bind("RILC_Close", &RILC_Close) && Bind("RILC_Reconnect", &RILC_Reconnect) &&
                    Bind("RILC_RegisterUnsolicitedHandler", &RILC_RegisterUnsolicitedHandler) &&
                    Bind("RILC_Send", &RILC_Send) &&
                    Bind("RILC_SetIndicationFilter", &RILC_SetIndicationFilter);
    if (!complete) Release();
    return complete;
}

void RilClientHelperDLImpl::Release() {
    LogCall("Release");
    // The library stays mapped: a thread of its own may still run in it, and a late response be
    // on its way.
    library = nullptr;
    RILC_Open = nullptr;
    RILC_OpenV2 = nullptr;
    RILC_Close = nullptr;
    RILC_Reconnect = nullptr;
    RILC_RegisterUnsolicitedHandler = nullptr;
    RILC_Send = nullptr;
    // RILC_SetIndicationFilter stays set; Forward() never calls it without `library`.
}

void* RilClientHelperDLImpl::Open() {
    LogCall("Open");
    if (library != nullptr && RILC_Open != nullptr) client = RILC_Open();
    return client;
}

void* RilClientHelperDLImpl::Open(const char* name) {
    LogCall("Open");
    if (library != nullptr && RILC_OpenV2 != nullptr) client = RILC_OpenV2(name);
    return client;
}

int RilClientHelperDLImpl::Close(void* handle) {
    LogCall("Close");
    if (handle == nullptr) return kNotLoaded;
    return Forward(library, RILC_Close, handle);
}

int RilClientHelperDLImpl::Reconnect(void* handle) {
    LogCall("Reconnect");
    return Forward(library, RILC_Reconnect, handle);
}

int RilClientHelperDLImpl::Send(void* handle, unsigned int request, void* data, size_t length,
                                RilResponseCallback callback) {
    return Send(handle, request, data, length, callback, kUsualExtra);
}

int RilClientHelperDLImpl::Send(void* handle, unsigned int request, void* data, size_t length,
                                RilResponseCallback callback, unsigned int extra) {
    LogCall("Send");
    return Forward(library, RILC_Send, handle, request, data, length, callback, extra);
}

int RilClientHelperDLImpl::RegisterUnsolicitedResponseHandler(void* handle,
                                                              RilUnsolicitedCallback handler) {
    LogCall("RegisterUnsolicitedResponseHandler");
    return Forward(library, RILC_RegisterUnsolicitedHandler, handle, handler);
}

int RilClientHelperDLImpl::SetIndicationFilter(void* handle, int* filter, size_t size) {
    LogCall("SetIndicationFilter");
    // Deliberately an error line, though nothing has failed.
    RLOGE("%s::%s filter=%p size=%zu", kClassName, "SetIndicationFilter",
          static_cast<void*>(filter), size);
    return Forward(library, RILC_SetIndicationFilter, handle, filter, size);
}
