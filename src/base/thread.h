#pragma once

#include <pthread.h>

// A task that runs on its own thread.
class Runnable {
  public:
    virtual ~Runnable() = default;

    // The task. Runs on the new thread, which ends when this returns.
    virtual void Run() = 0;
};

// Runs a Runnable on a POSIX thread and joins it when destroyed. There is no stop request: the
// thread ends when the task returns.
class Thread {
  public:
    // Borrows `work`, which usually owns this Thread. Does not start it.
    explicit Thread(Runnable* work);

    // Waits for a started thread to end. Must not run on that thread.
    virtual ~Thread();

    // Runs the runnable's task, if there is a runnable. Called on the new thread.
    virtual void Run();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts the thread. Returns 0, or the positive error number of pthread_create. Called once, by
    // the thread that owns this object.
    int Start();

    // The thread's entry; `arg` is the Thread. Returns null.
    static void* ThreadProc(void* arg);

  protected:
    pthread_t thread;
    Runnable* runnable;
    // 1 from a successful start to the join.
    int started;
};
