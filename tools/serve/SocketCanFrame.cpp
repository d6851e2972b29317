#include "SocketCanFrame.h"

#include <linux/can/error.h>

#include <algorithm>
#include <cstring>

namespace vexlo_serve {

can_frame ToSocketCan(const VEXLO_FRAME& frame) {
    const CAN_OBJ& f = frame.frame;
    can_frame out;
    std::memset(&out, 0, sizeof(out));
    if (frame.flags & VEXLO_FRAME_ERROR) {
        out.can_id = CAN_ERR_FLAG | (f.Id & CAN_ERR_MASK);
        out.len = CAN_ERR_DLC;
        std::memcpy(out.data, f.Data, CAN_ERR_DLC);
        return out;
    }
    out.can_id = f.ExtendedFrame ? CAN_EFF_FLAG | (f.Id & CAN_EFF_MASK) : f.Id & CAN_SFF_MASK;
    if (f.RemoteFrame) out.can_id |= CAN_RTR_FLAG;
    out.len = std::min<unsigned char>(f.DataLength, CAN_MAX_DLEN);
    if (f.DataLength > CAN_MAX_DLEN) out.len8_dlc = std::min<unsigned char>(f.DataLength, 15);
    // A remote frame carries a length but no data.
    if (!f.RemoteFrame) std::memcpy(out.data, f.Data, out.len);
    return out;
}

bool FromSocketCan(const can_frame& frame, CAN_OBJ* out) {
    if (frame.can_id & CAN_ERR_FLAG) return false;
    std::memset(out, 0, sizeof(*out));
    bool ext = (frame.can_id & CAN_EFF_FLAG) != 0;
    out->Id = frame.can_id & (ext ? CAN_EFF_MASK : CAN_SFF_MASK);
    out->ExtendedFrame = ext ? 1 : 0;
    out->RemoteFrame = (frame.can_id & CAN_RTR_FLAG) ? 1 : 0;
    unsigned len = std::min<unsigned>(frame.len, CAN_MAX_DLEN);
    out->DataLength = static_cast<unsigned char>(
        len == CAN_MAX_DLEN && frame.len8_dlc > CAN_MAX_DLEN && frame.len8_dlc <= 15 ? frame.len8_dlc : len);
    if (!out->RemoteFrame) std::memcpy(out->Data, frame.data, len);
    return true;
}

}  // namespace vexlo_serve
