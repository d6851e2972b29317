#include "XLock.h"

#include <time.h>

XLock::XLock(XLock* parent) : parent_(parent) {
    if (parent_) {
        parent_->Lock();
    } else {
        pthread_mutex_init(&mutex_, nullptr);
    }
}

XLock::~XLock() {
    if (parent_) {
        parent_->Unlock();
    } else {
        pthread_mutex_destroy(&mutex_);
    }
}

XLock* XLock::Root() {
    XLock* l = this;
    while (l->parent_) l = l->parent_;
    return l;
}

void XLock::Lock() { pthread_mutex_lock(&Root()->mutex_); }

void XLock::Unlock() { pthread_mutex_unlock(&Root()->mutex_); }

XSignal::XSignal() : XLock(nullptr) { pthread_cond_init(&cond_, nullptr); }

XSignal::~XSignal() { pthread_cond_destroy(&cond_); }

int XSignal::Wait(int ms) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (ts.tv_nsec > 999999999L) {
        ts.tv_sec += 1;
        ts.tv_nsec %= 1000000000L;
    }
    return pthread_cond_timedwait(&cond_, &mutex_, &ts);
}

void XSignal::Signal() { pthread_cond_signal(&cond_); }
