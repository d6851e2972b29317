// vexlo stat: a channel's controller status and counters, decoded for a person.
#include <cstdlib>
#include <cstring>
#include <string>

#include "Adapter.h"
#include "CanStatusText.h"
#include "Commands.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo stat [OPTIONS] CH\n"
    "\n"
    "Starts channel CH (0 or 1) and prints its error state, error counters, last error, bus load\n"
    "and the library's counters; with -w every SECONDS until Ctrl-C. Received frames are counted\n"
    "and thrown away; use --listen-only to stay silent on the bus.\n"
    "\n"
    "options:\n"
    "  -w SECONDS      repeat every SECONDS\n"
    "  -h, --help      this text\n"
    "  --version       the version\n"
    "common options:\n";

const char* const kNotices[] = {"data overrun", "error warning", "error passive", "arbitration lost", "bus error"};

bool Report(unsigned dev, unsigned ch) {
    CAN_STAT st;
    std::memset(&st, 0, sizeof(st));
    VEXLO_STATS stats;
    std::memset(&stats, 0, sizeof(stats));
    stats.size = sizeof(stats);
    if (!VCI_ReadCANStatus(kDevType, dev, ch, &st) || !vexlo_get_stats(dev, ch, &stats)) {
        Complain("cannot read the status of channel %u", ch);
        return false;
    }
    // The queue is emptied so that it never overflows while only counting.
    VCI_ClearBuffer(kDevType, dev, ch);
    FILE* out = Out();
    std::fprintf(out, "can%u\n", ch);
    std::fprintf(out, "  error state       %s\n", ErrorStateText(st.RegStatus, st.RegRxErrCount, st.RegTxErrCount).c_str());
    std::fprintf(out, "  error counters    receive %u, transmit %u\n", st.RegRxErrCount, st.RegTxErrCount);
    std::fprintf(out, "  last error        %s\n", st.RegErrCode ? ErrorCodeText(st.RegErrCode).c_str() : "none");
    std::fprintf(out, "  bus load          %u%%\n", st.CounterPercent);
    std::fprintf(out, "  received          %llu frames, %llu lost in the queue (peak depth %u)\n", stats.rx_frames,
                 stats.rx_lost, stats.queue_peak);
    std::fprintf(out, "  sent              %llu frames\n", stats.tx_frames);
    std::fprintf(out, "  bad messages      %llu\n", stats.bad_messages);
    std::fprintf(out, "  notices          ");
    for (int i = 0; i < 5; ++i) std::fprintf(out, " %s %llu%s", kNotices[i], stats.notices[i], i < 4 ? "," : "\n");
    std::fflush(out);
    return true;
}

}  // namespace

int RunStat(int argc, char** argv) {
    CommonOptions common;
    double every = 0;
    std::string channel;
    XArgs args(argc, argv);
    while (!args.Done()) {
        std::string opt = args.Option(), v;
        if (opt.empty()) {
            if (!TakeOneOperand(&args, &channel, "stat", "channel")) return kExitUsage;
            continue;
        }
        int shared = TakeSharedOption(opt, &args, &common, kUsage);
        if (shared == kOptionTaken) continue;
        if (shared != kOptionOwn) return shared;
        if (opt != "-w") {
            Complain("stat: unknown option '%s'", opt.c_str());
            return kExitUsage;
        }
        if (!args.Value(opt, &v)) return kExitUsage;
        char* end = nullptr;
        every = std::strtod(v.c_str(), &end);
        if (v.empty() || *end || !(every > 0)) {
            Complain("bad interval '%s'", v.c_str());
            return kExitUsage;
        }
    }
    unsigned ch = 0;
    if (channel.empty()) {
        Complain("stat needs a channel: 0 or 1");
        return kExitUsage;
    }
    if (!ParseChannel(channel, &ch)) return kExitUsage;
    XAdapter adapter(common);
    int status = adapter.Open();
    if (status != kExitOk) return status;
    if (!adapter.Start(ch)) return kExitFail;
    uint64_t next = MonoUs();
    do {
        if (!Report(common.dev, ch)) return kExitFail;
        next += static_cast<uint64_t>(every * 1e6);
        if (every > 0) SleepUntil(next);
    } while (every > 0 && !Stopping());
    return kExitOk;
}

}  // namespace vexlo_tool
