// One POSIX thread running one callback until its stop flag is raised.
#pragma once

#include <pthread.h>

class XThread {
public:
    // The body gets the stop flag and the argument; it should return soon after *stop turns true.
    typedef void* (*threadcb)(bool* stop, void* arg);
    // Runs on the worker thread only when it is cancelled inside the body.
    typedef void (*cleanupcb)(void* arg);

    XThread(threadcb tcb, cleanupcb ccb, void* arg);
    virtual ~XThread();

    bool Start();
    void Stop(bool cancel);

    // The body reads the stop flag on every pass of its loop.
    static bool StopRequested(const bool* stop) { return __atomic_load_n(stop, __ATOMIC_ACQUIRE); }

    threadcb threadcb_;
    cleanupcb cleanupcb_;
    void* arg_;
    pthread_t thread_;
    bool running_;
    bool stop_;

private:
    static void* Thread(XThread* self);
    static void* Entry(void* self);
};
