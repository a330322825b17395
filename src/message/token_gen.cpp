#include "message/token_gen.h"

#include "base/mutex_guard.h"

TokenGen* TokenGen::instance = nullptr;

void TokenGen::Init() {
    if (instance == nullptr) instance = new TokenGen();
}

TokenGen* TokenGen::GetInstance() {
    return instance;
}

unsigned int TokenGen::GetNext() {
    MutexGuard guard(&lock);
    uint32_t token = next;
    next = token + 1 == kNoToken ? 0 : token + 1;
    return token;
}
