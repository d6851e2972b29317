#include "CanPcap.h"

#include <cstring>

namespace vexlo_tool {

void EncodeSocketCan(const VEXLO_FRAME& frame, uint8_t out[kSocketCanRecordSize]) {
    const CAN_OBJ& f = frame.frame;
    std::memset(out, 0, kSocketCanRecordSize);
    uint32_t word;
    unsigned length = f.DataLength > 8 ? 8 : f.DataLength;
    if (frame.flags & VEXLO_FRAME_ERROR) {
        word = (f.Id & 0x1FFFFFFFu) | kSocketCanError;
        length = 8;
    } else {
        word = f.ExtendedFrame ? (f.Id & 0x1FFFFFFFu) | kSocketCanExtended : f.Id & 0x7FFu;
        if (f.RemoteFrame) word |= kSocketCanRemote;
        if (f.DataLength > 8) out[7] = f.DataLength;
    }
    out[0] = static_cast<uint8_t>(word >> 24);
    out[1] = static_cast<uint8_t>(word >> 16);
    out[2] = static_cast<uint8_t>(word >> 8);
    out[3] = static_cast<uint8_t>(word);
    out[4] = static_cast<uint8_t>(length);
    if ((frame.flags & VEXLO_FRAME_ERROR) || !f.RemoteFrame) std::memcpy(out + 8, f.Data, length);
}

void PcapStamp(uint64_t host_us, bool nano, uint32_t* seconds, uint32_t* fraction) {
    *seconds = static_cast<uint32_t>(host_us / 1000000);
    uint32_t us = static_cast<uint32_t>(host_us % 1000000);
    *fraction = nano ? us * 1000 : us;
}

}  // namespace vexlo_tool
