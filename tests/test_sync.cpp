// What the library's own use of them cannot pin: timed waits, the stop flag, a body that ends by
// itself, cancellation and the worker's log lines.
#include <gtest/gtest.h>

#include <errno.h>
#include <unistd.h>

#include <atomic>

#include "support/LogCapture.h"
#include "utils.h"

// A wait with no signal runs out at its deadline; Wait(0) has passed it already. (A signal ending a
// wait is what every command of the library's tests waits for.)
TEST(Signal, WaitEndsAtItsTimeout) {
    XSignal sig;
    sig.Lock();
    XTimer t;
    EXPECT_EQ(sig.Wait(50), ETIMEDOUT);
    t.Stop();
    EXPECT_GE(t.msecs(), 49u);
    EXPECT_EQ(sig.Wait(0), ETIMEDOUT);
    sig.Unlock();
}

static void* LoopUntilStopped(bool* stop, void* arg) {
    auto* passes = static_cast<std::atomic<int>*>(arg);
    while (!XThread::StopRequested(stop)) {
        ++*passes;
        usleep(1000);
    }
    return arg;
}

static void* ReturnAtOnce(bool*, void*) { return nullptr; }

static void* BlockInSleep(bool*, void*) {
    for (;;) usleep(100000);  // a cancellation point
    return nullptr;
}

static std::atomic<int> g_cleanups(0);
static void CountCleanup(void*) { ++g_cleanups; }

TEST(Thread, StopFlagEndsTheBodyAndItRestarts) {
    LogCapture cap;
    VCI_Debug(XLOG_GENERAL);
    g_cleanups = 0;
    std::atomic<int> passes(0);
    {
        XThread th(LoopUntilStopped, CountCleanup, &passes);
        EXPECT_TRUE(th.Start());
        EXPECT_FALSE(th.Start());  // already started: warning, no second thread
        while (passes < 3) usleep(1000);
        th.Stop(false);
        int after = passes;
        usleep(20000);
        EXPECT_EQ(passes, after);  // the body has really ended
        th.Stop(false);            // second stop: nothing
        EXPECT_TRUE(th.Start());
    }
    VCI_Debug(0);
    EXPECT_EQ(g_cleanups, 0);  // a normal return never runs the clean-up
    std::string text = cap.Take();
    EXPECT_NE(text.find("WRN: bool XThread::Start()<"), std::string::npos);
    EXPECT_NE(text.find(">: running_\n"), std::string::npos);
    EXPECT_NE(text.find("void XThread::Stop(bool)<"), std::string::npos);
    EXPECT_NE(text.find(">: returned\n"), std::string::npos);
}

TEST(Thread, BodyEndingByItselfNullBodyAndCancel) {
    LogCapture cap;
    VCI_Debug(XLOG_GENERAL);
    g_cleanups = 0;
    {
        XThread th(ReturnAtOnce, CountCleanup, &g_cleanups);
        EXPECT_TRUE(th.Start());
        usleep(20000);
        EXPECT_TRUE(th.running_);  // ended, but not yet joined
        th.Stop(false);
        XThread none(nullptr, nullptr, nullptr);
        EXPECT_TRUE(none.Start());
        none.Stop(false);
    }
    EXPECT_EQ(g_cleanups, 0);
    std::string text = cap.Take();
    EXPECT_NE(text.find(">: returned\n", text.find(">: returned\n") + 1), std::string::npos);  // both joined
    {
        XThread th(BlockInSleep, CountCleanup, &g_cleanups);
        EXPECT_TRUE(th.Start());
        usleep(20000);
        th.Stop(true);
    }
    VCI_Debug(0);
    EXPECT_EQ(g_cleanups, 1);  // cancellation runs it, once
    text = cap.Take();
    EXPECT_NE(text.find(">: pthread_cancel\n"), std::string::npos);
    EXPECT_NE(text.find(">: canceled\n"), std::string::npos);
    EXPECT_EQ(text.find("--- threadcb="), std::string::npos);  // a cancelled body writes no closing line
}
