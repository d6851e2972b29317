// vexlo stat: a channel's controller status and counters, decoded for a person.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Adapter.h"
#include "CanStatusText.h"
#include "Commands.h"
#include "Process.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo stat [OPTIONS] CH\n"
    "\n"
    "Starts channel CH (0 or 1) and prints its bit timing, error state, error counters, last\n"
    "error, bus load and the library's counters; with -w every SECONDS until Ctrl-C. Received\n"
    "frames are counted and thrown away as they come; use --listen-only to stay silent on the bus.\n"
    "\n"
    "options:\n"
    "  -w SECONDS      repeat every SECONDS, 0.1 to 86400\n"
    "\n";

const char* const kNotices[] = {"data overrun", "error warning", "error passive", "arbitration lost", "bus error"};

// The bus timing bytes as the controller holds them (registers 6 and 7) and what they give.
std::string TimingText(XAdapter* adapter, unsigned ch) {
    unsigned char btr0 = 0, btr1 = 0;
    unsigned rate = 0, sample = 0;
    if (!adapter->Register(ch, 6, &btr0) || !adapter->Register(ch, 7, &btr1) ||
        !vexlo_rate_for_timing(btr0, btr1, &rate, &sample))
        return "unreadable";
    char text[80];
    std::snprintf(text, sizeof(text), "%02X:%02X, %u bit/s, sample point %u.%u%%", btr0, btr1, rate, sample / 10,
                  sample % 10);
    return text;
}

bool Report(XAdapter* adapter, unsigned ch) {
    unsigned dev = adapter->dev();
    CAN_STAT st;
    std::memset(&st, 0, sizeof(st));
    VEXLO_STATS stats;
    std::memset(&stats, 0, sizeof(stats));
    stats.size = sizeof(stats);
    std::string timing = TimingText(adapter, ch);
    if (!adapter->Status(ch, &st) || !vexlo_get_stats(dev, ch, &stats)) {
        if (adapter->Present()) Complain("cannot read the status of channel %u", ch);
        return false;
    }
    std::printf("can%u\n", ch);
    std::printf("  bit timing        %s\n", timing.c_str());
    std::printf("  error state       %s\n", ErrorStateText(st.RegStatus, st.RegRxErrCount, st.RegTxErrCount).c_str());
    std::printf("  error counters    receive %u, transmit %u\n", st.RegRxErrCount, st.RegTxErrCount);
    std::printf("  last error        %s\n", st.RegErrCode ? ErrorCodeText(st.RegErrCode).c_str() : "none");
    std::printf("  bus load          %u%%\n", st.CounterPercent);
    std::printf("  received          %llu frames, %llu lost in the queue (peak depth %u)\n", stats.rx_frames,
                stats.rx_lost, stats.queue_peak);
    std::printf("  sent              %llu frames\n", stats.tx_frames);
    std::printf("  bad messages      %llu\n", stats.bad_messages);
    std::printf("  notices          ");
    for (int i = 0; i < 5; ++i) std::printf(" %s %llu%s", kNotices[i], stats.notices[i], i < 4 ? "," : "\n");
    return FlushOut();
}

}  // namespace

int RunStat(int argc, char** argv) {
    CommonOptions common;
    double every = 0;
    OwnOptions own = {"w:", nullptr,
                      [&](int, const char* v) { return TakeNumber("-w", v, 0.1, 86400, false, &every); }};
    std::vector<std::string> operands;
    std::string channel;
    int status = ParseCommandLine(argc, argv, kUsage, own, &common, &operands);
    if (status >= 0) return status;
    unsigned ch = 0;
    if (!OneOperand(operands, "stat", "a channel: 0 or 1", &channel) || !ParseChannel(channel, &ch)) return kExitUsage;
    XAdapter adapter(common);
    status = adapter.Open();
    if (status != kExitOk) return status;
    if (!adapter.Start(ch)) return kExitFail;
    // Between reports the frames are thrown away as they arrive (Pause): the queue never
    // overflows, and the counts come from the library's counters.
    uint64_t next = MonoUs();
    do {
        if (!Report(&adapter, ch)) return kExitFail;
        next += static_cast<uint64_t>(every * 1e6);
        if (every > 0 && !adapter.Pause(next)) return kExitFail;
    } while (every > 0 && !Stopping());
    return kExitOk;
}

}  // namespace vexlo_tool
