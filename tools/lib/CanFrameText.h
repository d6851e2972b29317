// CAN frames as text, in the forms that Linux CAN users type and read (can-utils habits).
#pragma once

#include <string>

#include "vexlo.h"

namespace vexlo_tool {

// Parses one frame in the compact form "ID#DATA" into *frame (zeroed first).
//   ID: 3 hex digits (standard, at most 7FF) or 8 hex digits (extended, at most 1FFFFFFF).
//   DATA: 0 to 8 bytes of two hex digits each, optionally separated by dots; "R" alone or "R0".."R8"
//   for a remote frame with that length.
// False with the reason in *error (for example "identifier needs 3 or 8 hex digits") on bad text.
// Example: "123#DE.AD.BE.EF" -> Id 0x123, standard, DataLength 4, Data DE AD BE EF.
bool ParseFrame(const std::string& text, CAN_OBJ* frame, std::string* error);

// The compact form of a frame, as ParseFrame reads it and candump -L writes it: upper-case hex,
// no dots, "R" plus the length for a remote frame with a length. Lengths above 8 print 8 bytes.
// Example: extended 0x1ABCDE, data 11 22 -> "001ABCDE#1122"; remote 0x123 length 0 -> "123#R".
std::string FormatFrame(const CAN_OBJ& frame);

// The readable candump line of a frame, without time stamp: "  NAME  ID   [LEN]  DATA".
// Example: ("can0", standard 0x123, DE AD BE EF) -> "  can0  123   [4]  DE AD BE EF";
//          a remote frame of length 2 ends "[2]  remote request".
std::string FormatFrameLine(const std::string& name, const CAN_OBJ& frame);

}  // namespace vexlo_tool
