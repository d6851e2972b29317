// Locks, timed signals and the worker thread.
#include <gtest/gtest.h>

#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/LogCapture.h"
#include "utils.h"

TEST(Signal, WaitEndsOnSignalOrTimeout) {
    XSignal sig;
    // A wait with no signal runs out at its deadline.
    sig.Lock();
    XTimer t;
    EXPECT_EQ(sig.Wait(50), ETIMEDOUT);
    t.Stop();
    sig.Unlock();
    EXPECT_GE(t.msecs(), 49u);
    // Wait(0): the deadline has passed already.
    sig.Lock();
    EXPECT_EQ(sig.Wait(0), ETIMEDOUT);
    sig.Unlock();

    // A signal given while the waiter sleeps ends the wait with 0, long before its timeout.
    std::atomic<bool> flag(false);
    std::thread other([&] {
        usleep(20000);
        XLock guard(&sig);
        flag = true;
        sig.Signal();
    });
    sig.Lock();
    t.Start();
    int r = 0;
    while (!flag) r = sig.Wait(10000);
    t.Stop();
    sig.Unlock();
    other.join();
    EXPECT_EQ(r, 0);
    EXPECT_LT(t.msecs(), 5000u);
}

TEST(Lock, GuardReleasesOnScopeExit) {
    XLock root;
    {
        XLock guard(&root);
        EXPECT_EQ(pthread_mutex_trylock(&root.mutex_), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(&root.mutex_), 0);
    pthread_mutex_unlock(&root.mutex_);
    // Lock and Unlock of a guard act on the root of its chain.
    XLock guard(&root);
    guard.Unlock();
    EXPECT_EQ(pthread_mutex_trylock(&root.mutex_), 0);
    pthread_mutex_unlock(&root.mutex_);
    guard.Lock();
    EXPECT_EQ(pthread_mutex_trylock(&root.mutex_), EBUSY);
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
static void CountCleanup(void* arg) {
    EXPECT_EQ(arg, reinterpret_cast<void*>(&g_cleanups));
    ++g_cleanups;
}

TEST(Thread, StopsAndJoins) {
    LogCapture cap;
    VCI_Debug(XLOG_GENERAL);
    std::atomic<int> passes(0);
    {
        XThread th(LoopUntilStopped, nullptr, &passes);
        EXPECT_TRUE(th.Start());
        EXPECT_FALSE(th.Start());  // already started: warning, no second thread
        while (passes < 3) usleep(1000);
        th.Stop(false);
        EXPECT_FALSE(th.running_);
        int after = passes;
        usleep(20000);
        EXPECT_EQ(passes, after);  // the body has really ended
        th.Stop(false);            // second stop: nothing
        // It can be started again.
        EXPECT_TRUE(th.Start());
    }
    VCI_Debug(0);
    std::string text = cap.Take();
    EXPECT_NE(text.find("WRN: bool XThread::Start()<"), std::string::npos);
    EXPECT_NE(text.find(">: running_\n"), std::string::npos);
    EXPECT_NE(text.find("void XThread::Stop(bool)<"), std::string::npos);
    EXPECT_NE(text.find(">: returned\n"), std::string::npos);
    EXPECT_NE(text.find("static void* XThread::Thread(XThread*)<"), std::string::npos);
}

TEST(Thread, BodyThatReturnsByItselfAndNullBody) {
    LogCapture cap;
    VCI_Debug(XLOG_GENERAL);
    g_cleanups = 0;
    {
        XThread th(ReturnAtOnce, CountCleanup, &g_cleanups);
        EXPECT_TRUE(th.Start());
        usleep(20000);
        EXPECT_TRUE(th.running_);  // ended, but not yet joined
        th.Stop(false);
    }
    {
        XThread th(nullptr, nullptr, nullptr);
        EXPECT_TRUE(th.Start());
        th.Stop(false);
    }
    VCI_Debug(0);
    EXPECT_EQ(g_cleanups, 0);  // a normal return never runs the clean-up
    std::string text = cap.Take();
    size_t first = text.find(">: returned\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(text.find(">: returned\n", first + 1), std::string::npos);
}

TEST(Thread, CancelRunsCleanupOnce) {
    LogCapture cap;
    VCI_Debug(XLOG_GENERAL);
    g_cleanups = 0;
    {
        XThread th(BlockInSleep, CountCleanup, &g_cleanups);
        EXPECT_TRUE(th.Start());
        usleep(20000);
        th.Stop(true);
    }
    VCI_Debug(0);
    EXPECT_EQ(g_cleanups, 1);
    std::string text = cap.Take();
    EXPECT_NE(text.find(">: pthread_cancel\n"), std::string::npos);
    EXPECT_NE(text.find(">: canceled\n"), std::string::npos);
    // A cancelled body writes no closing line.
    EXPECT_EQ(text.find("--- threadcb="), std::string::npos);
}

TEST(Thread, NeverStartedWritesOnlyDestructorLines) {
    XThread* th = new XThread(ReturnAtOnce, nullptr, nullptr);
    LogCapture cap;
    VCI_Debug(XLOG_GENERAL);
    delete th;
    VCI_Debug(0);
    auto lines = LogCapture::Lines(cap.Take());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(lines[0], LogLine("DBG", "virtual XThread::~XThread()", "+++")));
    EXPECT_TRUE(std::regex_match(lines[1], LogLine("DBG", "virtual XThread::~XThread()", "---")));
}
