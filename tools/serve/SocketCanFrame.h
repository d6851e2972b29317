// Frames between the hub's layout (VEXLO_FRAME, CAN_OBJ) and a Linux CAN socket's (can_frame).
#pragma once

#include <linux/can.h>

#include "vexlo.h"
#include "vexlo_ext.h"

namespace vexlo_serve {

// A frame of the bus as a Linux CAN interface carries it: the identifier with CAN_EFF_FLAG or
// CAN_RTR_FLAG; a data length code of 9 to 15 as 8 bytes with len8_dlc; an adapter notice (flags
// VEXLO_FRAME_ERROR) as an error frame, CAN_ERR_FLAG with the error class, 8 bytes of details.
// Example: extended 1ABCDEF0, 2 bytes 11 22 -> can_id 0x9ABCDEF0, len 2, data 11 22.
can_frame ToSocketCan(const VEXLO_FRAME& frame);

// A frame a program wrote on the interface, as the adapter sends it. False for what the adapter
// cannot send: an error frame.
bool FromSocketCan(const can_frame& frame, CAN_OBJ* out);

}  // namespace vexlo_serve
