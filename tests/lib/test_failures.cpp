// Failures below the library, injected by interposing the calls it makes: libusb's context that
// cannot start, a transfer record that cannot be allocated, an event thread that cannot be
// created. Each open fails with result 0 and its error lines, and the next open succeeds.
#include <dlfcn.h>
#include <errno.h>
#include <libusb.h>
#include <pthread.h>

#include <atomic>

#include "LibFixture.h"

static std::atomic<int> g_fail_init(0), g_fail_alloc(0), g_fail_thread(0);

// Consumes one injected failure of a kind, if any are left.
static bool Take(std::atomic<int>& n) {
    int v = n.load();
    while (v > 0 && !n.compare_exchange_weak(v, v - 1)) {
    }
    return v > 0;
}

extern "C" int libusb_init(libusb_context** ctx) {
    if (Take(g_fail_init)) return LIBUSB_ERROR_NO_MEM;
    auto real = reinterpret_cast<int (*)(libusb_context**)>(dlsym(RTLD_NEXT, "libusb_init"));
    return real(ctx);
}

extern "C" libusb_transfer* libusb_alloc_transfer(int iso_packets) {
    if (Take(g_fail_alloc)) return nullptr;
    auto real = reinterpret_cast<libusb_transfer* (*)(int)>(dlsym(RTLD_NEXT, "libusb_alloc_transfer"));
    return real(iso_packets);
}

extern "C" int pthread_create(pthread_t* t, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
    if (Take(g_fail_thread)) return EAGAIN;
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(t, attr, fn, arg);
}

using FailureTest = LibTest;

static const char* kOpenSig = "unsigned int VCI_OpenDevice(unsigned int, unsigned int, unsigned int)";

TEST_F(FailureTest, ContextThatCannotStart) {
    g_fail_init = 1;
    Capture();
    EXPECT_EQ(VCI_OpenDevice(kType, 0, 0), 0u);
    EXPECT_EQ(Problems(Log()), (std::vector<std::string>{"ERR static int CanDev::Init(): libusb_init failed: ret=-11",
                                                         std::string("ERR ") + kOpenSig + ": Open(0471:1200, 0) failed"}));
    // The next open tries again and succeeds.
    EXPECT_EQ(VCI_OpenDevice(kType, 0, 0), 1u);
    EXPECT_EQ(VCI_ResetCAN(kType, 0, 0), 1u);
    EXPECT_EQ(VCI_CloseDevice(kType, 0), 1u);
}

TEST_F(FailureTest, TransferRecordThatCannotBeAllocated) {
    ASSERT_EQ(VCI_OpenDevice(kType, 1, 0), 0u);  // no adapter there: starts libusb's context only
    g_fail_alloc = 1;
    Capture();
    EXPECT_EQ(VCI_OpenDevice(kType, 0, 0), 0u);
    EXPECT_EQ(Problems(Log()),
              (std::vector<std::string>{"ERR CanXfer::CanXfer(): libusb_alloc_transfer failed",
                                        "ERR int CanDev::Open(U16, U16, U16): no transfer record: ep=0x01",
                                        std::string("ERR ") + kOpenSig + ": Open(0471:1200, 0) failed"}));
    EXPECT_EQ(VCI_StartCAN(kType, 0, 0), 0u);  // nothing was registered
    EXPECT_EQ(VCI_OpenDevice(kType, 0, 0), 1u);
    EXPECT_EQ(VCI_ResetCAN(kType, 0, 1), 1u);
    EXPECT_EQ(VCI_CloseDevice(kType, 0), 1u);
}

TEST_F(FailureTest, EventThreadThatCannotStart) {
    ASSERT_EQ(VCI_OpenDevice(kType, 1, 0), 0u);  // libusb's own threads are up before the failure
    g_fail_thread = 1;
    Capture();
    EXPECT_EQ(VCI_OpenDevice(kType, 0, 0), 0u);
    EXPECT_EQ(Problems(Log()), (std::vector<std::string>{"ERR bool XThread::Start(): pthread_create failed: ret=11",
                                                         std::string("ERR ") + kOpenSig + ": Open(0471:1200, 0) failed"}));
    // The interface was let go and the handle closed: the adapter opens again at once.
    EXPECT_EQ(VCI_OpenDevice(kType, 0, 0), 1u);
    EXPECT_EQ(VCI_ResetCAN(kType, 0, 0), 1u);
    EXPECT_EQ(VCI_CloseDevice(kType, 0), 1u);
}
