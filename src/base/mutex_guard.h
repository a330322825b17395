#pragma once

#include <pthread.h>

// Holds a mutex for the length of a scope.
class MutexGuard {
  public:
    explicit MutexGuard(pthread_mutex_t* mutex) : held(mutex) { pthread_mutex_lock(held); }
    ~MutexGuard() { pthread_mutex_unlock(held); }

    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

  private:
    pthread_mutex_t* held;
};
