#include "base/thread.h"

#include "base/log.h"

Thread::Thread(Runnable* work) : thread(), runnable(work), started(0) {}

Thread::~Thread() {
    if (started == 0) {
        ALOGI("Thread is not started");
        return;
    }
    pthread_join(thread, nullptr);
    started = 0;
}

void Thread::Run() {
    if (runnable != nullptr) runnable->Run();
}

int Thread::Start() {
    int error = pthread_create(&thread, nullptr, ThreadProc, this);
    if (error == 0) started = 1;
    return error;
}

void* Thread::ThreadProc(void* arg) {
    if (arg != nullptr) static_cast<Thread*>(arg)->Run();
    return nullptr;
}
