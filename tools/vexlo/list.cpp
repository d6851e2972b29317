// vexlo list: every adapter found, by position.
#include <cstring>
#include <string>

#include "Adapter.h"
#include "CanStatusText.h"
#include "Commands.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo list\n"
    "\n"
    "Lists every adapter found: position, serial number, identification text, hardware and\n"
    "firmware versions, channel count.\n";

}  // namespace

int RunList(int argc, char** argv) {
    XArgs args(argc, argv);
    while (!args.Done()) {
        std::string opt = args.Option();
        if (opt.empty()) {
            Complain("list takes no arguments");
            return kExitUsage;
        }
        int help = HelpOrVersion(opt.c_str(), kUsage);
        if (help >= 0) return help;
        Complain("list: unknown option '%s'", opt.c_str());
        return kExitUsage;
    }
    // Positions are tried in order until one has no adapter; a busy one is listed as such.
    unsigned found = 0;
    for (unsigned dev = 0; dev < 32; ++dev) {
        CommonOptions common;
        common.dev = dev;
        XAdapter adapter(common);
        OpenFailure why = OpenFailure::kOther;
        if (!adapter.OpenQuietly(&why)) {
            if (why == OpenFailure::kMissing) break;
            std::fprintf(Out(), "%u  %s\n", dev,
                         why == OpenFailure::kBusy ? "in use by another program" : "cannot be opened");
            ++found;
            continue;
        }
        CAN_INFO info;
        std::memset(&info, 0, sizeof(info));
        if (!VCI_ReadBoardInfo(kDevType, dev, &info)) {
            std::fprintf(Out(), "%u  board information unreadable\n", dev);
        } else {
            info.SerialNumber[sizeof(info.SerialNumber) - 1] = 0;
            info.IdText[sizeof(info.IdText) - 1] = 0;
            std::fprintf(Out(), "%u  serial %s  %s  hardware %s  firmware %s  channels %u\n", dev, info.SerialNumber,
                         info.IdText, VersionText(info.HardwareVersion).c_str(),
                         VersionText(info.FirmwareVersion).c_str(), info.ChannelCount);
        }
        ++found;
    }
    if (found == 0) std::fprintf(Out(), "no adapter found\n");
    return kExitOk;
}

}  // namespace vexlo_tool
