// The controller's status registers in words.
#pragma once

#include <string>

#include "vexlo.h"

namespace vexlo_tool {

// The error state from the status register and the two error counters: "bus-off" (status bit 7),
// "error passive" (a counter at 128 or more), "error warning" (status bit 6), else "error active".
// Example: (0x00, 0, 128) -> "error passive".
std::string ErrorStateText(unsigned char status, unsigned char rx_errors, unsigned char tx_errors);

// The error code capture register in words: type, direction and the frame segment.
// Example: 0xD9 -> "other error while transmitting, in the acknowledge slot".
std::string ErrorCodeText(unsigned char ecc);

// An error frame (Id its Linux CAN error class, see VEXLO_FRAME) in the words candump -e uses:
// the classes, with the controller's problems, the lost bit or the counters in braces.
// Example: class 0x204, Data[1] 0x30, Data[6] 128, Data[7] 0 ->
//          "controller-problem{rx-error-passive,tx-error-passive},error-counter-tx-rx{{128}{0}}".
std::string ErrorFrameText(const CAN_OBJ& frame);

// A version of two bytes, major and minor. Example: 0x0210 -> "2.10".
std::string VersionText(unsigned short version);

}  // namespace vexlo_tool
