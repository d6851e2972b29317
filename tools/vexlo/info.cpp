// vexlo info: one adapter's board information and each channel's controller status.
#include <cstdio>
#include <cstring>
#include <string>

#include "Adapter.h"
#include "CanStatusText.h"
#include "Commands.h"
#include "Process.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo info [-d DEV]\n"
    "\n"
    "Prints the board information of adapter DEV (default 0) and each channel's controller\n"
    "status. The channels are not started.\n"
    "\n";

}  // namespace

int RunInfo(int argc, char** argv) {
    CommonOptions common;
    std::vector<std::string> operands;
    int status = ParseCommandLine(argc, argv, kUsage, {"", nullptr, nullptr}, &common, &operands);
    if (status >= 0) return status;
    if (!operands.empty()) {
        Complain("info takes no operands");
        return kExitUsage;
    }
    XAdapter adapter(common);
    status = adapter.Open();
    if (status != kExitOk) return status;
    CAN_INFO info;
    std::memset(&info, 0, sizeof(info));
    if (!adapter.BoardInfo(&info)) {
        if (adapter.gone()) return kExitFail;
        Complain("cannot read the board information of adapter %u", common.dev);
        return kExitFail;
    }
    info.SerialNumber[sizeof(info.SerialNumber) - 1] = 0;
    info.IdText[sizeof(info.IdText) - 1] = 0;
    FILE* out = stdout;
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
        if (!adapter.Status(ch, &st)) {
            if (adapter.gone()) return kExitFail;
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
