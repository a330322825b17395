#pragma once

#include <cstddef>

// Called by the radio's client library, on a thread of its own, with the response to one request:
// the request's number, an error code of the radio interface layer (0 is success), and `length`
// bytes at `data`, which are the library's. The meaning of `extra` is the library's.
using RilResponseCallback = void (*)(unsigned int request, int error, void* data, size_t length,
                                     unsigned int extra);

// Called by the library with an unsolicited message, one that is no response.
using RilUnsolicitedCallback = void (*)(unsigned int id, void* data, size_t length,
                                        unsigned int extra);

// The radio's client library, through which requests reach the radio daemon.
//
// Operations that return an int return what the library returns, or 1 when there is no library to
// call. Nothing here locks: one thread at a time. `handle` is a client that Open() gave.
class RilClientHelper {
  public:
    // The one instance, made by the first call, which also loads the library; never null and never
    // destroyed. When the library cannot be loaded, the operations fail, and it is not tried again.
    static RilClientHelper* GetInstance();

    virtual ~RilClientHelper() = default;

    // Loads the library and finds its entry points. Returns false, with a log line that names what
    // is missing, unless all of them are there.
    virtual bool Init() = 0;

    // Lets go of the library. Every later operation fails.
    virtual void Release() = 0;

    // Opens a client. Returns its handle, or null.
    virtual void* Open() = 0;

    // Opens a client that the library is to know by `name`. Returns its handle, or null.
    virtual void* Open(const char* name) = 0;

    // Closes a client. Returns 1 also when `handle` is null.
    virtual int Close(void* handle) = 0;

    // Connects a client to the radio daemon again.
    virtual int Reconnect(void* handle) = 0;

    // Sends `length` bytes at `data`, borrowed for the call, as request number `request`. The
    // response comes through `callback`, possibly before this returns.
    virtual int Send(void* handle, unsigned int request, void* data, size_t length,
                     RilResponseCallback callback) = 0;

    // The same with `extra`, whose meaning is the library's; the form above passes 255.
    virtual int Send(void* handle, unsigned int request, void* data, size_t length,
                     RilResponseCallback callback, unsigned int extra) = 0;

    // Has `handler` called with unsolicited messages.
    virtual int RegisterUnsolicitedResponseHandler(void* handle,
                                                   RilUnsolicitedCallback handler) = 0;

    // Limits unsolicited messages to the `size` ids at `filter`.
    virtual int SetIndicationFilter(void* handle, int* filter, size_t size) = 0;
};

// The library as it is found at run time, so that the service also runs where it is missing.
class RilClientHelperDLImpl : public RilClientHelper {
  public:
    RilClientHelperDLImpl() = default;
    ~RilClientHelperDLImpl() override;

    RilClientHelperDLImpl(const RilClientHelperDLImpl&) = delete;
    RilClientHelperDLImpl& operator=(const RilClientHelperDLImpl&) = delete;

    bool Init() override;
    void Release() override;
    void* Open() override;
    void* Open(const char* name) override;
    int Close(void* handle) override;
    int Reconnect(void* handle) override;
    int Send(void* handle, unsigned int request, void* data, size_t length,
             RilResponseCallback callback) override;
    int Send(void* handle, unsigned int request, void* data, size_t length,
             RilResponseCallback callback, unsigned int extra) override;
    int RegisterUnsolicitedResponseHandler(void* handle, RilUnsolicitedCallback handler) override;
    int SetIndicationFilter(void* handle, int* filter, size_t size) override;

  protected:
    // Finds one entry point. Returns false, with a log line, when the library lacks it.
    template <typename Entry>
    bool Bind(const char* symbol, Entry* entry);

    // Null while the library is not loaded.
    void* library = nullptr;
    // What the last Open() gave. Closing does not clear it.
    void* client = nullptr;

    void* (*RILC_Open)() = nullptr;
    void* (*RILC_OpenV2)(const char* name) = nullptr;
    int (*RILC_Close)(void* handle) = nullptr;
    int (*RILC_Reconnect)(void* handle) = nullptr;
    int (*RILC_RegisterUnsolicitedHandler)(void* handle, RilUnsolicitedCallback handler) = nullptr;
    int (*RILC_Send)(void* handle, unsigned int request, void* data, size_t length,
                     RilResponseCallback callback, unsigned int extra) = nullptr;
    int (*RILC_SetIndicationFilter)(void* handle, int* filter, size_t size) = nullptr;
};
