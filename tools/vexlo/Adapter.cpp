#include "Adapter.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "CanBitRate.h"

namespace vexlo_tool {
namespace {

FILE* g_out = stdout;
volatile sig_atomic_t g_stop = 0;
int g_stop_pipe[2] = {-1, -1};

void OnStopSignal(int) {
    g_stop = 1;
    char c = 1;
    ssize_t r = write(g_stop_pipe[1], &c, 1);
    (void)r;
}

}  // namespace

FILE* Out() { return g_out; }
void SetOut(FILE* out) { g_out = out; }

void Complain(const char* fmt, ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "vexlo: %s\n", text);
}

bool XArgs::IsOption() const {
    const char* a = argv_[i_];
    return a[0] == '-' && a[1] != 0 && !(a[1] >= '0' && a[1] <= '9');
}

std::string XArgs::Option() {
    has_inline_ = false;
    if (Done() || !IsOption()) return std::string();
    std::string a = argv_[i_++];
    if (a.compare(0, 2, "--") == 0) {
        size_t eq = a.find('=');
        if (eq != std::string::npos) {
            inline_ = a.substr(eq + 1);
            has_inline_ = true;
            return a.substr(0, eq);
        }
        return a;
    }
    if (a.size() > 2) {
        inline_ = a.substr(2);
        has_inline_ = true;
        return a.substr(0, 2);
    }
    return a;
}

bool XArgs::Value(const std::string& option, std::string* value) {
    if (has_inline_) {
        *value = inline_;
        has_inline_ = false;
        return true;
    }
    if (Done()) {
        Complain("option %s needs a value", option.c_str());
        return false;
    }
    *value = argv_[i_++];
    return true;
}

const char kCommonHelp[] =
    "  -d DEV          adapter position (default 0)\n"
    "  -b RATE         bit rate: 1M 800k 500k 250k 125k 100k 50k 20k 10k or any rate in bit/s\n"
    "                  within 1% of a reachable one (default 500k)\n"
    "  --btr B0:B1     raw bus timing bytes in hex, instead of -b\n"
    "  --listen-only   never acknowledge nor send on the bus\n";

int TakeCommonOption(const std::string& option, XArgs* args, CommonOptions* common) {
    std::string v;
    if (option == "--listen-only") {
        common->listen_only = true;
        return 1;
    }
    if (option != "-d" && option != "-b" && option != "--btr") return 0;
    if (!args->Value(option, &v)) return -1;
    if (option == "-d") {
        char* end = nullptr;
        unsigned long d = std::strtoul(v.c_str(), &end, 10);
        if (v.empty() || *end || d > 31) {
            Complain("bad adapter position '%s' (0 to 31)", v.c_str());
            return -1;
        }
        common->dev = static_cast<unsigned>(d);
    } else if (option == "-b") {
        unsigned rate = 0;
        std::string error;
        if (!ParseBitRate(v, &rate)) {
            Complain("bad bit rate '%s'", v.c_str());
            return -1;
        }
        if (!TimingForRate(rate, &common->btr0, &common->btr1, &error)) {
            Complain("%s", error.c_str());
            return -1;
        }
    } else if (!ParseTimingBytes(v, &common->btr0, &common->btr1)) {
        Complain("bad timing bytes '%s' (B0:B1, two hex bytes)", v.c_str());
        return -1;
    }
    return 1;
}

bool ParseChannel(const std::string& text, unsigned* channel) {
    if (text != "0" && text != "1") {
        Complain("bad channel '%s' (0 or 1)", text.c_str());
        return false;
    }
    *channel = static_cast<unsigned>(text[0] - '0');
    return true;
}

void InstallStopSignals() {
    if (g_stop_pipe[0] < 0 && pipe2(g_stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) g_stop_pipe[0] = g_stop_pipe[1] = -1;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    // A closed reader of our output ends the command like a stop, not by a kill.
    signal(SIGPIPE, SIG_IGN);
}

bool Stopping() { return g_stop != 0; }
int StopFd() { return g_stop_pipe[0]; }

uint64_t MonoUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

uint64_t RealUs() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

void SleepUntil(uint64_t mono_us) {
    while (!Stopping()) {
        uint64_t now = MonoUs();
        if (now >= mono_us) return;
        pollfd p = {StopFd(), POLLIN, 0};
        uint64_t ms = (mono_us - now + 999) / 1000;
        if (mono_us - now < 2000) {
            // Short waits: a plain sleep is finer than poll's milliseconds.
            usleep(static_cast<useconds_t>(mono_us - now));
            continue;
        }
        poll(&p, 1, static_cast<int>(ms > 1000 ? 1000 : ms - 1));
    }
}

OpenFailure ClassifyOpenFailure(const std::string& lines) {
    // The library says "invalid index: index=N, found=M" when fewer adapters are plugged in, and
    // "libusb_claim_interface failed" when another program holds the adapter's interface.
    if (lines.find("invalid index") != std::string::npos) return OpenFailure::kMissing;
    if (lines.find("libusb_claim_interface failed") != std::string::npos) return OpenFailure::kBusy;
    return OpenFailure::kOther;
}

bool XAdapter::OpenQuietly(OpenFailure* why, std::string* lines) {
    // Catch the library's lines of the attempt: standard output goes to a memory file meanwhile.
    std::fflush(stdout);
    int saved = dup(1);
    int mem = memfd_create("vexlo-open", MFD_CLOEXEC);
    if (saved >= 0 && mem >= 0) dup2(mem, 1);
    unsigned ok = VCI_OpenDevice(kDevType, common_.dev, 0);
    std::fflush(stdout);
    std::string text;
    if (saved >= 0 && mem >= 0) {
        dup2(saved, 1);
        char buf[4096];
        ssize_t n;
        lseek(mem, 0, SEEK_SET);
        while ((n = read(mem, buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
    }
    if (saved >= 0) close(saved);
    if (mem >= 0) close(mem);
    if (lines) *lines = text;
    open_ = ok != 0;
    if (!open_) *why = ClassifyOpenFailure(text);
    return open_;
}

int XAdapter::Open() {
    OpenFailure why = OpenFailure::kOther;
    std::string lines;
    if (OpenQuietly(&why, &lines)) return kExitOk;
    switch (why) {
    case OpenFailure::kMissing:
        Complain("no adapter at position %u", common_.dev);
        break;
    case OpenFailure::kBusy:
        Complain("adapter %u is in use by another program", common_.dev);
        break;
    case OpenFailure::kOther:
        std::fputs(lines.c_str(), stderr);
        Complain("cannot open adapter %u", common_.dev);
        break;
    }
    return kExitFail;
}

bool XAdapter::Start(unsigned channel, const AcceptanceFilter& filter) {
    CAN_INIT init;
    std::memset(&init, 0, sizeof(init));
    init.AcceptCode = filter.code;
    init.AcceptMask = filter.mask;
    init.FilterMode = filter.single ? 1 : 0;
    init.BusTiming0 = common_.btr0;
    init.BusTiming1 = common_.btr1;
    init.ListenOnly = common_.listen_only ? 1 : 0;
    if (!VCI_InitCAN(kDevType, common_.dev, channel, &init)) {
        Complain("cannot initialise channel %u of adapter %u", channel, common_.dev);
        return false;
    }
    if (!VCI_StartCAN(kDevType, common_.dev, channel)) {
        Complain("cannot start channel %u of adapter %u", channel, common_.dev);
        return false;
    }
    started_[channel] = true;
    return true;
}

bool XAdapter::WaitSent(unsigned channel) {
    uint64_t until = MonoUs() + 1000000;
    while (!Stopping() && MonoUs() < until) {
        CAN_STAT st;
        std::memset(&st, 0, sizeof(st));
        if (VCI_ReadCANStatus(kDevType, common_.dev, channel, &st) && (st.RegStatus & 0x04)) return true;
        SleepUntil(MonoUs() + 2000);
    }
    return Stopping();
}

void XAdapter::Close() {
    if (!open_) return;
    for (unsigned ch = 0; ch < 2; ++ch)
        if (started_[ch]) VCI_ResetCAN(kDevType, common_.dev, ch);
    VCI_CloseDevice(kDevType, common_.dev);
    open_ = false;
}

}  // namespace vexlo_tool
