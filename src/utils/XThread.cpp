#include "XThread.h"

#include "XLog.h"

XThread::XThread(threadcb tcb, cleanupcb ccb, void* arg)
    : threadcb_(tcb), cleanupcb_(ccb), arg_(arg), thread_(0), running_(false), stop_(false) {
    XDBG(XLOG_GENERAL, "*** threadcb=%p, cleanupcb=%p\n", reinterpret_cast<void*>(tcb),
         reinterpret_cast<void*>(ccb));
}

XThread::~XThread() {
    XDBG(XLOG_GENERAL, "+++\n");
    Stop(false);
    XDBG(XLOG_GENERAL, "---\n");
}

bool XThread::Start() {
    XDBG(XLOG_GENERAL, "***\n");
    if (running_) {
        XWRN("running_\n");
        return false;
    }
    __atomic_store_n(&stop_, false, __ATOMIC_RELEASE);
    int r = pthread_create(&thread_, nullptr, Entry, this);
    if (r != 0) {
        XERR("pthread_create failed: ret=%d\n", r);
        return false;
    }
    XDBG(XLOG_GENERAL, "pthread_create succeeded: thread=0x%lx\n", static_cast<unsigned long>(thread_));
    running_ = true;
    return true;
}

void XThread::Stop(bool cancel) {
    if (!running_) return;
    XDBG(XLOG_GENERAL, "***\n");
    __atomic_store_n(&stop_, true, __ATOMIC_RELEASE);
    if (cancel) {
        XDBG(XLOG_GENERAL, "pthread_cancel\n");
        int r = pthread_cancel(thread_);
        if (r != 0) XWRN("pthread_cancel failed: ret=%d\n", r);
    }
    void* ret = nullptr;
    int r = pthread_join(thread_, &ret);
    if (r != 0) {
        XWRN("pthread_join failed: ret=%d\n", r);
    } else {
        XDBG(XLOG_GENERAL, "%s\n", ret == PTHREAD_CANCELED ? "canceled" : "returned");
    }
    running_ = false;
}

// pthread_create wants a void*(void*) routine; the traced body is Thread.
void* XThread::Entry(void* self) { return Thread(static_cast<XThread*>(self)); }

// The clean-up handler is a pair of macros that must share one block; it is pushed only when the
// object has a clean-up callback, and popped without running it on a normal return.
static void* XThreadRunWithCleanup(XThread::threadcb body, XThread::cleanupcb cleanup, bool* stop, void* arg) {
    void* ret = nullptr;
    pthread_cleanup_push(cleanup, arg);
    ret = body(stop, arg);
    pthread_cleanup_pop(0);
    return ret;
}

void* XThread::Thread(XThread* self) {
    XDBG(XLOG_GENERAL, "+++ threadcb=%p, cleanupcb=%p\n", reinterpret_cast<void*>(self->threadcb_),
         reinterpret_cast<void*>(self->cleanupcb_));
    void* ret = nullptr;
    if (self->threadcb_) {
        if (self->cleanupcb_) {
            ret = XThreadRunWithCleanup(self->threadcb_, self->cleanupcb_, &self->stop_, self->arg_);
        } else {
            ret = self->threadcb_(&self->stop_, self->arg_);
        }
    }
    XDBG(XLOG_GENERAL, "--- threadcb=%p, cleanupcb=%p\n", reinterpret_cast<void*>(self->threadcb_),
         reinterpret_cast<void*>(self->cleanupcb_));
    return ret;
}
