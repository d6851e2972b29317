// The serial-line CAN protocol (Lawicel, SLCAN) as text: commands split from a byte stream and
// parsed, received frames formatted. No device, no I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vexlo.h"

namespace vexlo_tool {

// One command of a line, without its CR.
struct SlcanCommand {
    enum Kind {
        kEmpty,     // ""                 nothing (clients send it to flush the line)
        kOpen,      // "O"
        kListen,    // "L"                open without transmitting
        kClose,     // "C"
        kRate,      // "S0".."S8"         value: the index
        kTiming,    // "sXXYY"            btr0, btr1
        kFrame,     // "tIIIL..", "TIIIIIIIIL..", "rIIIL", "RIIIIIIIIL"   frame
        kStatus,    // "F"
        kVersion,   // "V"
        kDetail,    // "v"
        kSerial,    // "N"
        kStamps,    // "Z0", "Z1"         value: 0 or 1
        kCode,      // "Mxxxxxxxx"        value: acceptance code
        kMask,      // "mxxxxxxxx"        value: acceptance mask
        kBad,       // anything else: answered with BEL
        kOverlong,  // a line longer than kSlcanMaxLine, thrown away up to its CR: BEL
    };
    Kind kind = kEmpty;
    uint32_t value = 0;
    unsigned char btr0 = 0, btr1 = 0;
    CAN_OBJ frame{};
};

// The longest command kept; the longest valid one, an extended frame of 8 bytes, has 26 characters.
const size_t kSlcanMaxLine = 32;

// Parses one command (the bytes between two CRs). Hex digits may be upper or lower case; a frame
// takes exactly the digits its length asks for; a standard identifier is at most 7FF; an extended
// identifier keeps its low 29 bits (some clients set bit 31 to mark it extended).
// Example: "t1232DEAD" -> kFrame, standard 0x123, 2 bytes DE AD; "S9" -> kBad.
SlcanCommand ParseSlcanCommand(const char* line, size_t len);

// Splits a byte stream into commands at each CR, across any number of writes. LF is ignored (so
// CR LF line ends work); a line growing past kSlcanMaxLine is thrown away up to its CR and becomes
// one kOverlong command, so memory stays bounded whatever the peer sends.
// Example: Feed("O\rt10", ...) gives kOpen; then Feed("0\r") gives the frame 0x100 of length 0.
class XSlcanSplitter {
public:
    void Feed(const char* data, size_t len, std::vector<SlcanCommand>* commands);

private:
    char line_[kSlcanMaxLine];
    size_t len_ = 0;
    bool overlong_ = false;
};

// A received frame as the line sends it, CR included: t/T/r/R, upper-case hex, the length clipped
// to 8, and with `stamp` the 4 hex digits of the milliseconds of host_us modulo 60000.
// Example: standard 0x123, DE AD, host_us 61,234,567 with stamp -> "t1232DEAD04D2\r".
std::string FormatSlcanFrame(const CAN_OBJ& frame, bool stamp, uint64_t host_us);

// The status flags ("F" reply) that an error frame of the library's layout raises: bit 2 error
// warning, 3 data overrun, 5 error passive, 6 arbitration lost, 7 bus error; 0 for other classes.
// Example: class 0x002 (arbitration lost) -> 0x40.
unsigned SlcanStatusFlags(const CAN_OBJ& error_frame);

// The lines the Linux kernel's slcan driver (6.0 and later) reads as error state and error
// frames, for an error frame of the library's layout: a data overrun gives "e1o" (receive
// overrun); an error warning or error passive notice that changes *state ('a' active, 'w' warning,
// 'p' passive) gives "s" + the new state + the receive and transmit error counters as three
// decimal digits each (000 where the notice carries none). A warning notice reports a change of
// the warning status, so it moves an active line to warning and a warning line back to active; a
// passive notice names the state by its counters. Other classes give nothing.
// Example: class 0x204, Data[1] 30, Data[6] 128, Data[7] 5, *state 'w' -> "sp005128\r", *state 'p'.
std::string FormatSlcanErrorState(const CAN_OBJ& error_frame, char* state);

}  // namespace vexlo_tool
