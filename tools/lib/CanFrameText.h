// CAN frames as text, in the forms that Linux CAN users type and read (can-utils habits).
#pragma once

#include <string>

#include <cstdint>

#include "vexlo.h"

namespace vexlo_tool {

// The flag that marks an error frame's identifier in the Linux CAN formats (0x20000000 | class).
const uint32_t kErrFlag = 0x20000000u;

// The value of one hex digit, either case; -1 for any other character. Example: 'b' -> 11.
int HexValue(char c);

// Parses one frame in the compact form "ID#DATA" into *frame (zeroed first).
//   ID: 3 hex digits (standard, at most 7FF) or 8 hex digits (extended, at most 1FFFFFFF).
//   DATA: 0 to 8 bytes of two hex digits each, optionally separated by dots; "R" alone or "R0".."R8"
//   for a remote frame with that length.
// False with the reason in *error (for example "identifier needs 3 or 8 hex digits") on bad text.
// Example: "123#DE.AD.BE.EF" -> Id 0x123, standard, DataLength 4, Data DE AD BE EF.
bool ParseFrame(const std::string& text, CAN_OBJ* frame, std::string* error);

// The compact form of a frame, as ParseFrame reads it and candump -L writes it: upper-case hex,
// no dots, "R" plus the length for a remote frame with a length. Lengths above 8 print 8 bytes.
// An error frame (Id the error class) is written as candump logs it: 8 digits of kErrFlag | Id.
// Example: extended 0x1ABCDE, data 11 22 -> "001ABCDE#1122"; remote 0x123 length 0 -> "123#R";
//          error class 0x004, data 00 01 00 ... -> "20000004#0001000000000000".
std::string FormatFrame(const CAN_OBJ& frame, bool error = false);

// The readable candump line of a frame, without time stamp: "  NAME  ID   [LEN]  DATA".
// Example: ("can0", standard 0x123, DE AD BE EF) -> "  can0  123   [4]  DE AD BE EF";
//          a remote frame of length 2 ends "[2]  remote request"; an error frame has the
//          identifier of FormatFrame and ends "   ERRORFRAME", as candump prints it.
std::string FormatFrameLine(const std::string& name, const CAN_OBJ& frame, bool error = false);

}  // namespace vexlo_tool
