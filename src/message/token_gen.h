#pragma once

#include <pthread.h>

#include <cstdint>

// The value that means "no token".
constexpr uint32_t kNoToken = 0xFFFFFFFF;

// Hands out the tokens by which requests and their responses are paired. One per process.
class TokenGen {
  public:
    // Creates the instance unless it exists. Called while the message handler is constructed,
    // before any thread is started.
    static void Init();

    // The instance, which is never freed; null before Init(). Any thread.
    static TokenGen* GetInstance();

    // The next token: 0, 1, ... 0xFFFFFFFE, 0, ... Any thread.
    unsigned int GetNext();

    TokenGen(const TokenGen&) = delete;
    TokenGen& operator=(const TokenGen&) = delete;

  protected:
    TokenGen() = default;
    ~TokenGen() = default;

    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    uint32_t next = 0;

  private:
    static TokenGen* instance;
};
