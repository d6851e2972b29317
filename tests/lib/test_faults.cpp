// The fault matrix: each row is one fault the simulated adapter (or an interposed call below the
// library) can inject, the call it hits, and what must follow: the result, the WRN/ERR lines in
// order (fnmatch patterns), the time the call takes where a wait is specified, and the state after.
// Every row runs in a process of its own (one ctest case each, so that they run side by side and
// a crash or hang fails that row alone), closes the adapter at the end, and checks that the
// process holds no more descriptors than before the row.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fnmatch.h>
#include <libusb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>

#include "LibFixture.h"
#include "vexlo_ext.h"

// Failures below the library: libusb's context, a transfer record, the event thread.
static std::atomic<int> g_fail_init(0), g_fail_alloc(0), g_fail_thread(0);

static bool Take(std::atomic<int>& n) {  // consumes one injected failure of a kind, if any are left
    int v = n.load();
    while (v > 0 && !n.compare_exchange_weak(v, v - 1)) {
    }
    return v > 0;
}

extern "C" int libusb_init(libusb_context** ctx) {
    if (Take(g_fail_init)) return LIBUSB_ERROR_NO_MEM;
    return reinterpret_cast<int (*)(libusb_context**)>(dlsym(RTLD_NEXT, "libusb_init"))(ctx);
}

extern "C" libusb_transfer* libusb_alloc_transfer(int iso_packets) {
    if (Take(g_fail_alloc)) return nullptr;
    return reinterpret_cast<libusb_transfer* (*)(int)>(dlsym(RTLD_NEXT, "libusb_alloc_transfer"))(iso_packets);
}

extern "C" int pthread_create(pthread_t* t, const pthread_attr_t* attr, void* (*fn)(void*), void* arg) {
    if (Take(g_fail_thread)) return EAGAIN;
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(t, attr, fn, arg);
}

namespace {

#define SIG3 "(unsigned int, unsigned int, unsigned int)"
const std::string kOpen = "ERR unsigned int VCI_OpenDevice" SIG3 ": ";
const std::string kStart = "ERR unsigned int VCI_StartCAN" SIG3 ": ";
const std::string kInit = "ERR unsigned int VCI_InitCAN(unsigned int, unsigned int, unsigned int, CAN_INIT*): ";
const std::string kRef = "ERR unsigned int VCI_GetReference(unsigned int, unsigned int, unsigned int, unsigned int, void*): ";
const std::string kTx = "ERR unsigned int VCI_Transmit(unsigned int, unsigned int, unsigned int, CAN_OBJ*, unsigned int): ";
const std::string kInfo = "ERR unsigned int VCI_ReadBoardInfo(unsigned int, unsigned int, CAN_INFO*): ";
const std::string kCmd = "ERR int CanDev::Cmd(U8*, U32, U8*, U32*, U32): ";
const std::string kRecv = "void CanDev::Recv(CanXfer*): ";
const std::string kDone = "WRN void CanDev::UsbXferDone(CanXfer*): xfer failed: ";

using Dev = vs::SimDevice;

struct FaultRow {
    const char* id;
    bool opens;                               // the row starts with adapter 0 open, both channels started
    std::function<void(Dev&)> inject;         // the fault
    std::function<unsigned(Dev&)> call;       // the call it hits
    unsigned result;
    std::vector<std::string> lines;           // the WRN/ERR lines of call and check, in order
    unsigned min_ms, max_ms;                  // the call's duration (0, 0: not checked)
    std::function<void(Dev&)> check;          // the state that must follow
    bool some_lines = false;                  // the lines must be there, others may come too
};

CAN_OBJ g_tx[7];
CAN_INFO g_info;
CAN_STAT g_stat;
unsigned char g_ref[1];

unsigned StartCh0(Dev&) { return VCI_StartCAN(kType, 0, 0); }
unsigned Tx(unsigned n) { return VCI_Transmit(kType, 0, 0, g_tx, n); }
std::function<unsigned(Dev&)> TxCall(unsigned n) {
    return [n](Dev&) { return Tx(n); };
}
unsigned Open(Dev&) { return VCI_OpenDevice(kType, 0, 0); }
void Nothing(Dev&) {}
void Recovers(Dev& sim) {  // once the fault is gone, the next command goes through
    sim.ClearFaults();
    EXPECT_EQ(VCI_StartCAN(kType, 0, 1), 1u);
}

// Registers 0x0D and 0x00 of channel 0 (values unlike) read in turn, the first three reads answered
// `ms` late: no read succeeds with the other's value (the result counts those), and from the fifth
// exchange after the delay ends every read succeeds.
std::function<unsigned(Dev&)> LatePairs(unsigned ms) {
    return [ms](Dev& sim) {
        unsigned wrong = 0;
        for (unsigned i = 0; i < 12; ++i) {
            sim.SetDelay(i < 3 ? ms : 0);
            unsigned char reg[1] = {static_cast<unsigned char>(i % 2 ? 0x00 : 0x0D)};
            const unsigned char own = sim.Channel(0).regs[reg[0]];
            const bool ok = VCI_GetReference(kType, 0, 0, 1, reg) == 1;
            wrong += ok && reg[0] != own;
            EXPECT_TRUE(i < 7 || (ok && reg[0] == own)) << "read " << i;
        }
        return wrong;
    };
}

std::function<void(Dev&)> Raw(std::vector<vs::Bytes> packets) {
    return [packets](Dev& sim) {
        for (const vs::Bytes& p : packets) sim.InjectRaw(p);
    };
}

// A marker frame after the injected input proves it has been handled: the frames of channel 1
// received before the marker.
unsigned Drain(Dev& sim) {
    vs::SimFrame m;
    m.id = 0x77;
    sim.InjectFrame(1, m);
    CAN_OBJ got;
    unsigned before = 0;
    uint64_t end = vs::SimTestbed::Now() + 3000000000ull;
    while (vs::SimTestbed::Now() < end) {
        if (VCI_Receive(kType, 0, 1, &got, 1, 100) != 1) continue;
        if (got.Id == 0x77) return before;
        EXPECT_EQ(got.Id, 0x123u);
        ++before;
    }
    return 99;
}

// Records of channel 1 (standard, no data, identifier 0x123); `bad` names channel 2.
vs::Bytes Records(unsigned n, int bad = -1) {
    vs::Bytes msg(19 * n, 0);
    for (unsigned i = 0; i < n; ++i) {
        vs::SimRecord r;
        r.info = static_cast<int>(i) == bad ? 0x20 : 0x10;
        r.raw[0] = 0x60;
        r.raw[1] = 0x24;
        r.Encode(&msg[19 * i]);
    }
    return msg;
}

// Channel 1's readiness descriptor, which nothing makes readable but the close, in an epoll set;
// the events the set holds after the close. (A descriptor closed at once would have left the
// set, and a waiter woken by it would find nothing.)
unsigned CloseUnderEpoll(Dev&) {
    epoll_event ev = {EPOLLIN, {}};
    const int ep = epoll_create1(0);
    EXPECT_EQ(epoll_ctl(ep, EPOLL_CTL_ADD, vexlo_receive_fd(0, 1), &ev), 0);
    EXPECT_EQ(epoll_wait(ep, &ev, 1, 0), 0);
    VCI_CloseDevice(kType, 0);
    const int n = epoll_wait(ep, &ev, 1, 1000);
    close(ep);
    return static_cast<unsigned>(n);
}

pollfd g_ready;  // a readiness descriptor to watch

std::function<void(Dev&)> Ack(vs::SimAckFault f, int code, int count = -1) {
    return [=](Dev& sim) { sim.SetAckFault(f, code, count); };
}

// After a failed open, the next one succeeds and the adapter works.
void OpensAgain(Dev&) {
    EXPECT_EQ(VCI_OpenDevice(kType, 0, 0), 1u);
    EXPECT_EQ(VCI_ResetCAN(kType, 0, 1), 1u);
}

const FaultRow kRows[] = {
    {"silent_adapter", true, Ack(vs::SimAckFault::kNoAck, vs::kAnyAck),
     [](Dev&) { g_ref[0] = 0x0E; return VCI_GetReference(kType, 0, 0, 1, g_ref); }, 0,
     {kCmd + "xfer(ack) failed", kRef + "Cmd failed"}, 950, 2000,
     [](Dev& sim) {
         EXPECT_EQ(g_ref[0], 0x0E);  // the address is kept
         sim.ClearFaults();  // a frame packet is not held back, and its answer shows the read's is lost
         EXPECT_EQ(Tx(1), 1u);
         EXPECT_EQ(VCI_GetReference(kType, 0, 0, 1, g_ref), 1u);
     }},
    {"wrong_command_code", true, Ack(vs::SimAckFault::kWrongCode, 0x0E, 1), StartCh0, 0,
     {kStart + "Ack error: ?? 0[!e] ??"}, 0, 0, Nothing},
    {"wrong_code_in_board_info", true, Ack(vs::SimAckFault::kWrongCode, 0x13),
     [](Dev& sim) {
         memset(&g_info, 0xCC, sizeof(g_info));
         sim.ClearSent();
         return VCI_ReadBoardInfo(kType, 0, &g_info);
     },
     0, {kInfo + "Ack error: ?? 1[!3] ??"}, 0, 0,
     [](Dev& sim) {  // it stops at the first bad answer: serial and id are not asked for
         EXPECT_EQ(sim.Sent(vs::kEpCmdOut).size(), 3u);
         EXPECT_EQ(g_info.HardwareVersion, vs::SimIdentity().hw_version);
         EXPECT_EQ(g_info.FirmwareVersion, vs::SimIdentity().fw_version);
         EXPECT_EQ(g_info.DriverVersion, 0xCCCC);
         EXPECT_EQ(g_info.ChannelCount, 0xCC);
     }},
    {"missing_accept_bit", true, Ack(vs::SimAckFault::kNoAcceptBit, 0x04, 1),  // after the timing packet
     [](Dev&) { CAN_INIT init = {}; return VCI_InitCAN(kType, 0, 0, &init); }, 0,
     {kInit + "Ack error: ?? 04 [0-7]?"}, 0, 0, Nothing},
    {"missing_accept_bit_in_status", true, Ack(vs::SimAckFault::kNoAcceptBit, 0x0D),
     [](Dev&) { memset(&g_stat, 0xCC, sizeof(g_stat)); return VCI_ReadCANStatus(kType, 0, 0, &g_stat); }, 1,
     std::vector<std::string>(7, kRef + "Ack error: ?? 0d [0-7]?"), 0, 0,
     [](Dev&) {  // failed reads keep their addresses
         const unsigned char want[8] = {0x00, 0x00, 0x02, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};
         EXPECT_EQ(memcmp(&g_stat, want, 8), 0);
     }},
    {"short_acknowledgement", true, Ack(vs::SimAckFault::kShort, 0x0E, 1), StartCh0, 0,
     {kStart + "Ack error: ?? 0e 00"}, 0, 0, Nothing},  // byte 2 reads as 00
    {"zero_length_acknowledgement", true, Ack(vs::SimAckFault::kZeroLength, 0x0E, 1), StartCh0, 0,
     {kCmd + "xfer(ack) failed", kStart + "Cmd failed"}, 0, 900,  // wakes at once with nothing
     [](Dev&) { EXPECT_EQ(VCI_StartCAN(kType, 0, 0), 1u); }},
    {"command_out_never_completes", true, [](Dev& sim) { sim.SetOutFault(vs::kEpCmdOut, vs::SimOutFault::kNever); },
     StartCh0, 0,  // libusb ends the packet after 1000 ms (status 2); the wait runs its 2000 ms
     {kDone + "ep=0x01, status=2, size=0", kCmd + "xfer(cmd) failed", kStart + "Cmd failed"}, 1950, 3500, Recovers},
    {"command_out_stalls", true, [](Dev& sim) { sim.SetOutFault(vs::kEpCmdOut, vs::SimOutFault::kStall); }, StartCh0,
     0, {kDone + "ep=0x01, status=4, size=0", kCmd + "xfer(cmd) failed", kStart + "Cmd failed"}, 0, 0, Recovers},
    {"partial_acceptance", true, [](Dev& sim) { sim.SetTxAccept(2); }, TxCall(7), 2,
     {kTx + "request=3, transferred=2"}, 0, 0,
     [](Dev& sim) { EXPECT_EQ(sim.Sent(vs::kEpDataOut).size(), 1u); }},  // nothing after the partial slice
    {"transmit_not_acknowledged", true, Ack(vs::SimAckFault::kNoAck, vs::kTxAck), TxCall(5), 0,
     {kTx + "Send failed"}, 1950, 3000, Nothing},
    {"short_transmit_acknowledgement", true, Ack(vs::SimAckFault::kShort, vs::kTxAck, 1), TxCall(1), 0,
     {kTx + "Send failed"}, 0, 0, Nothing},  // too short to carry the count: none
    {"data_out_never_completes", true, [](Dev& sim) { sim.SetOutFault(vs::kEpDataOut, vs::SimOutFault::kNever); },
     TxCall(3), 0,  // libusb's 2000 ms timeout, the wait of 3000 ms
     {kDone + "ep=0x02, status=2, size=0", "ERR int CanDev::Send(CAN_OBJX*, U32*, U32): xfer(tx) failed",
      kTx + "Send failed"},
     2950, 4500,
     [](Dev& sim) {
         sim.ClearFaults();
         EXPECT_EQ(Tx(3), 3u);
     }},
    {"data_out_stalls", true, [](Dev& sim) { sim.SetOutFault(vs::kEpDataOut, vs::SimOutFault::kStall); }, TxCall(1), 0,
     {kDone + "ep=0x02, status=4, size=0", "ERR int CanDev::Send(CAN_OBJX*, U32*, U32): xfer(tx) failed",
      kTx + "Send failed"},
     0, 0, [](Dev& sim) { sim.ClearFaults(); EXPECT_EQ(Tx(1), 1u); }},
    {"message_of_bad_length", true, Raw({vs::Bytes(21, 0)}), Drain, 0,  // neither 19*K nor 19*K + 1
     {"WRN " + kRecv + "data error, 21 bytes dropped ..."}, 0, 0, Nothing},
    {"zero_length_message", true, Raw({vs::Bytes()}), Drain, 0, {"WRN " + kRecv + "no data ..."}, 0, 0, Nothing},
    {"cache_overflow", true, Raw(std::vector<vs::Bytes>(16, vs::Bytes(64, 0))), Drain, 0,
     {"WRN " + kRecv + "cache full, 1024 bytes dropped ..."}, 0, 0,
     [](Dev& sim) {  // the cache works on: 64 + 12 bytes form one message of four records
         vs::Bytes four = Records(4);
         sim.InjectRaw(vs::Bytes(four.begin(), four.begin() + 64));
         sim.InjectRaw(vs::Bytes(four.begin() + 64, four.end()));
         EXPECT_EQ(Drain(sim), 4u);
     }},
    {"invalid_channel", true, Raw({Records(3, 1)}), Drain, 1,  // the record before it is queued, the rest dropped
     {"ERR " + kRecv + "invalid channel: channel=2"}, 0, 0, Nothing},
    // Unplugged under traffic: the idle channel's descriptor turns readable within one event-thread
    // wait; the calls fail, the extension calls say so (the busy channel hands out its frames
    // first); plugged in again after the close, the adapter opens afresh.
    {"unplug_during_traffic", true,
     [](Dev& sim) {
         g_ready = {vexlo_receive_fd(0, 0), POLLIN, 0};
         EXPECT_EQ(poll(&g_ready, 1, 0), 0);
         vs::SimGenConfig gen;
         gen.rate = 2000;
         sim.StartGenerator(1, gen);
         usleep(20000);
         ASSERT_TRUE(sim.Unplug());
     },
     [](Dev&) { return static_cast<unsigned>(poll(&g_ready, 1, 200)); }, 1,
     {kStart + "Cmd failed", kTx + "Send failed"}, 0, 150,
     [](Dev& sim) {
         VEXLO_FRAME x[70];
         VEXLO_STATS st = {sizeof(st), 0, 0, 0, 0, 0, {}, 0};
         EXPECT_EQ(VCI_StartCAN(kType, 0, 0) + VCI_ReadBoardInfo(kType, 0, &g_info) + Tx(1), 0u);
         EXPECT_EQ(vexlo_present(0), VEXLO_GONE);
         int r = 1;
         while (r > 0) r = vexlo_receive(0, 1, x, 70, 5000);
         EXPECT_EQ(r, VEXLO_GONE);
         EXPECT_TRUE(vexlo_get_stats(0, 1, &st) && st.unplugged == 1);
         EXPECT_EQ(VCI_CloseDevice(kType, 0), 1u);
         ASSERT_TRUE(sim.Replug());
         for (int i = 0; i < 100 && VCI_OpenDevice(kType, 0, 0) != 1; ++i) usleep(20000);
         EXPECT_EQ(VCI_ResetCAN(kType, 0, 0), 1u);
         EXPECT_EQ(vexlo_present(0), 1);
     },
     true},
    // The descriptor is readable before it goes, and stays until the index is opened again.
    {"close_wakes_epoll", true, Nothing, CloseUnderEpoll, 1, {}, 0, 900, OpensAgain},
    {"no_libusb_context", false, [](Dev&) { g_fail_init = 1; }, Open, 0,
     {"ERR static int CanDev::Init(): libusb_init failed: ret=-11", kOpen + "Open(0471:1200, 0) failed"}, 0, 0,
     OpensAgain},
    {"no_transfer_record", false, [](Dev&) { g_fail_alloc = 1; }, Open, 0,
     {"ERR CanXfer::CanXfer(): libusb_alloc_transfer failed",
      "ERR int CanDev::Open(U16, U16, U16): no transfer record: ep=0x01", kOpen + "Open(0471:1200, 0) failed",
      kStart + "device not opened"},
     0, 0,
     [](Dev& sim) {
         EXPECT_EQ(VCI_StartCAN(kType, 0, 0), 0u);  // nothing was registered
         OpensAgain(sim);
     }},
    {"no_event_thread", false, [](Dev&) { g_fail_thread = 1; }, Open, 0,
     {"ERR bool XThread::Start(): pthread_create failed: ret=11", kOpen + "Open(0471:1200, 0) failed"}, 0, 0,
     OpensAgain},  // the interface was let go and the handle closed
    // Reads of one code in turn, answered late: each waits for the earlier one's answer, or fails.
    {"late_answers_1500_ms", true, Nothing, LatePairs(1500), 0, {"..."}, 0, 0, Nothing},
    {"late_answers_2500_ms", true, Nothing, LatePairs(2500), 0, {"..."}, 0, 0, Nothing},
    {"late_answers_3500_ms", true, Nothing, LatePairs(3500), 0, {"..."}, 0, 0, Nothing},
};

// The process's descriptors: with `want`, once they have settled there (the emulation closes its
// end of a closed device handle on its own thread, a moment later) or after two seconds; without,
// the fewest seen over 200 ms.
int Fds(int want = -1) {
    int n = 0, least = 1 << 30;
    for (int i = 0; i < (want < 0 ? 20 : 200) && (i == 0 || n != want); ++i) {
        if (i) usleep(10000);
        n = 0;
        if (DIR* d = opendir("/proc/self/fd")) {
            while (readdir(d)) ++n;
            closedir(d);
        }
        least = std::min(least, n);
    }
    return want < 0 ? least : n;
}

}  // namespace

class FaultTest : public LibTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(FaultTest, Row) {
    const FaultRow& row = kRows[GetParam()];
    for (CAN_OBJ& f : g_tx) f = CAN_OBJ{};
    // One cycle first: libusb's context and the emulation's own descriptors stay for the process.
    // (Not where libusb's context is the fault.)
    const bool warm = g_fail_init == 0 && std::string(row.id) != "no_libusb_context";
    if (warm) {
        ASSERT_EQ(VCI_OpenDevice(kType, 0, 0) & VCI_CloseDevice(kType, 0), 1u);
    }
    const int fds = Fds();
    if (row.opens) OpenAndStart();
    // Captured before the fault: an injected message may be decoded before the call is made.
    Capture();
    row.inject(Sim());
    const int held = row.opens ? 0 : Fds();  // the capture holds a descriptor of its own
    uint64_t t0 = vs::SimTestbed::Now();
    EXPECT_EQ(row.call(Sim()), row.result);
    uint64_t ms = (vs::SimTestbed::Now() - t0) / 1000000;
    if (!row.opens) {
        EXPECT_EQ(Fds(held), held);  // a failed open leaves nothing behind
    }
    row.check(Sim());
    std::string log = Log();
    if (HasFailure()) printf("%s", log.c_str());  // the failures reported while output was captured
    std::vector<std::string> p = Problems(log);
    const bool any = row.lines == std::vector<std::string>{"..."};
    if (!any && !row.some_lines) {
        EXPECT_EQ(p.size(), row.lines.size()) << log;
    }
    for (size_t i = 0, at = 0; i < row.lines.size() && !any; ++i, ++at) {
        while (row.some_lines && at < p.size() && fnmatch(row.lines[i].c_str(), p[at].c_str(), 0) != 0) ++at;
        EXPECT_TRUE(at < p.size() && fnmatch(row.lines[i].c_str(), p[at].c_str(), 0) == 0) << row.lines[i] << "\n" << log;
    }
    if (row.min_ms || row.max_ms) {
        EXPECT_GE(ms, row.min_ms);
        EXPECT_LT(ms, row.max_ms);
    }
    EXPECT_EQ(VCI_CloseDevice(kType, 0), 1u);
    if (warm) {
        EXPECT_EQ(Fds(fds), fds);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultTest, ::testing::Range<size_t>(0, sizeof(kRows) / sizeof(kRows[0])),
                         [](const ::testing::TestParamInfo<size_t>& r) { return std::string(kRows[r.param].id); });
