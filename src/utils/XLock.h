// Thin wrappers of a POSIX mutex and condition variable.
//
// XLock(nullptr) owns a mutex. XLock(&other) is a scoped guard: it holds the root of `other`'s
// parent chain from construction to destruction. The mutexes are not recursive.
#pragma once

#include <pthread.h>

class XLock {
public:
    explicit XLock(XLock* parent = nullptr);
    ~XLock();
    XLock(const XLock&) = delete;
    XLock& operator=(const XLock&) = delete;

    void Lock();
    void Unlock();

    pthread_mutex_t mutex_;
    XLock* parent_;

private:
    XLock* Root();
};

// A lock with a condition variable. Wait(ms) is called with the lock held; it waits once, until
// signalled or until ms milliseconds have passed on the real-time clock, and returns 0 or
// ETIMEDOUT. A wake-up is not a promise: callers check their own condition afterwards.
class XSignal : public XLock {
public:
    XSignal();
    ~XSignal();

    int Wait(int ms);
    void Signal();

    pthread_cond_t cond_;
};
