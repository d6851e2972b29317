// vexlo list: every adapter found, by position.
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
    "usage: vexlo list\n"
    "\n"
    "Lists every adapter found: position, serial number, identification text, hardware and\n"
    "firmware versions, channel count; an adapter another program holds is listed as such.\n"
    "\n";

}  // namespace

int RunList(int argc, char** argv) {
    CommonOptions common;
    std::vector<std::string> operands;
    int status = ParseCommandLine(argc, argv, kUsage, {"", nullptr, nullptr}, &common, &operands);
    if (status >= 0) return status;
    if (!operands.empty()) {
        Complain("list takes no operands");
        return kExitUsage;
    }
    // The library counts the adapters without opening them; each is then opened for its identity.
    int count = vexlo_count();
    if (count < 0) {
        Complain("USB cannot be reached");
        return kExitFail;
    }
    for (unsigned dev = 0; dev < static_cast<unsigned>(count) && dev < 32; ++dev) {
        if (!VCI_OpenDevice(kDevType, dev, 0)) {
            const char* why = nullptr;
            vexlo_open_error(&why);
            std::printf("%u  %s\n", dev, why && *why ? why : "the adapter could not be opened");
            continue;
        }
        CAN_INFO info;
        std::memset(&info, 0, sizeof(info));
        if (!VCI_ReadBoardInfo(kDevType, dev, &info)) {
            std::printf("%u  board information unreadable\n", dev);
        } else {
            info.SerialNumber[sizeof(info.SerialNumber) - 1] = 0;
            info.IdText[sizeof(info.IdText) - 1] = 0;
            std::printf("%u  serial %s  %s  hardware %s  firmware %s  channels %u\n", dev, info.SerialNumber,
                        info.IdText, VersionText(info.HardwareVersion).c_str(),
                        VersionText(info.FirmwareVersion).c_str(), info.ChannelCount);
        }
        VCI_CloseDevice(kDevType, dev);
    }
    if (count == 0) std::printf("no adapter found\n");
    return kExitOk;
}

}  // namespace vexlo_tool
