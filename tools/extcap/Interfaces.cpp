// The interface list: every channel of every adapter present, named vexlo<A>can<CH>, with the
// adapter's serial number read from its board information. An adapter that cannot be opened (in
// use by another program, say) is listed with the reason instead of its serial number.
#include <cstdio>
#include <cstring>
#include <string>

#include "CanExtcap.h"
#include "Extcap.h"
#include "vexlo_ext.h"

namespace vexlo_extcap {
namespace {

const unsigned kDevType = 4;

// The serial number in parentheses, or why the adapter could not be asked.
std::string Describe(unsigned adapter) {
    if (!VCI_OpenDevice(kDevType, adapter, 0)) {
        const char* text = nullptr;
        int why = vexlo_open_error(&text);
        std::string reason = text && *text ? text : "the adapter could not be opened";
        if (why == VEXLO_OPEN_BUSY) reason = "in use by another program";
        return reason;
    }
    CAN_INFO info;
    std::memset(&info, 0, sizeof(info));
    std::string serial;
    if (VCI_ReadBoardInfo(kDevType, adapter, &info)) {
        info.SerialNumber[sizeof(info.SerialNumber) - 1] = 0;
        serial = std::string("serial ") + info.SerialNumber;
    } else {
        serial = "board information unreadable";
    }
    VCI_CloseDevice(kDevType, adapter);
    return serial;
}

}  // namespace

int ListInterfaces() {
    std::printf("extcap {version=%s}\n", vexlo_version());
    int count = vexlo_count();
    if (count < 0) {
        Complain("USB cannot be reached: no adapter can be listed");
        return kExitOk;
    }
    for (unsigned a = 0; a < static_cast<unsigned>(count); ++a) {
        std::string about = Describe(a);
        for (unsigned ch = 0; ch < 2; ++ch) {
            std::printf("interface {value=%s}{display=vexlo adapter %u channel %u (%s)}\n",
                        vexlo_tool::ExtcapInterfaceName(a, ch).c_str(), a, ch, about.c_str());
        }
    }
    return kExitOk;
}

}  // namespace vexlo_extcap
