// vexlo info: one adapter's board information and each channel's controller status.
#include <cstring>
#include <string>

#include "Adapter.h"
#include "CanStatusText.h"
#include "Commands.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo info [-d DEV]\n"
    "\n"
    "Prints the board information of adapter DEV (default 0) and each channel's controller\n"
    "status. The channels are not started.\n"
    "\n"
    "options:\n"
    "  -d DEV          adapter position (default 0)\n"
    "  -h, --help      this text\n"
    "  --version       the version\n";

}  // namespace

int RunInfo(int argc, char** argv) {
    CommonOptions common;
    XArgs args(argc, argv);
    while (!args.Done()) {
        std::string opt = args.Option();
        if (opt.empty()) {
            Complain("info takes no operands");
            return kExitUsage;
        }
        int help = HelpOrVersion(opt.c_str(), kUsage);
        if (help >= 0) return help;
        int taken = opt == "-d" ? TakeCommonOption(opt, &args, &common) : 0;
        if (taken < 0) return kExitUsage;
        if (taken == 0) {
            Complain("info: unknown option '%s'", opt.c_str());
            return kExitUsage;
        }
    }
    XAdapter adapter(common);
    int status = adapter.Open();
    if (status != kExitOk) return status;
    CAN_INFO info;
    std::memset(&info, 0, sizeof(info));
    if (!VCI_ReadBoardInfo(kDevType, common.dev, &info)) {
        Complain("cannot read the board information of adapter %u", common.dev);
        return kExitFail;
    }
    info.SerialNumber[sizeof(info.SerialNumber) - 1] = 0;
    info.IdText[sizeof(info.IdText) - 1] = 0;
    FILE* out = Out();
    std::fprintf(out, "adapter %u\n", common.dev);
    std::fprintf(out, "  serial number     %s\n", info.SerialNumber);
    std::fprintf(out, "  identification    %s\n", info.IdText);
    std::fprintf(out, "  hardware version  %s\n", VersionText(info.HardwareVersion).c_str());
    std::fprintf(out, "  firmware version  %s\n", VersionText(info.FirmwareVersion).c_str());
    std::fprintf(out, "  channels          %u\n", info.ChannelCount);
    unsigned channels = info.ChannelCount >= 1 && info.ChannelCount <= 2 ? info.ChannelCount : 2;
    for (unsigned ch = 0; ch < channels; ++ch) {
        CAN_STAT st;
        std::memset(&st, 0, sizeof(st));
        if (!VCI_ReadCANStatus(kDevType, common.dev, ch, &st)) {
            std::fprintf(out, "channel %u: status unreadable\n", ch);
            status = kExitFail;
            continue;
        }
        std::fprintf(out, "channel %u\n", ch);
        std::fprintf(out, "  mode              0x%02X%s%s\n", st.RegMode, (st.RegMode & 1) ? " reset" : " running",
                     (st.RegMode & 2) ? ", listen only" : "");
        std::fprintf(out, "  status            0x%02X\n", st.RegStatus);
        std::fprintf(out, "  error state       %s\n",
                     ErrorStateText(st.RegStatus, st.RegRxErrCount, st.RegTxErrCount).c_str());
        std::fprintf(out, "  error counters    receive %u, transmit %u (warning limit %u)\n", st.RegRxErrCount,
                     st.RegTxErrCount, st.RegErrWarnLimit);
    }
    return status;
}

}  // namespace vexlo_tool
