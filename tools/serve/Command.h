// The socketcand protocol's commands from a client: cutting the byte stream into commands and
// parsing one command. Pure functions of text: no socket, no adapter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vexlo.h"

namespace vexlo_serve {

// Cuts a byte stream into commands, the text between '<' and '>'. Bytes outside a command are
// ignored; a '<' inside a command starts it again. At most kMaxCommand characters are kept (the
// longest command, a muxfilter of 257 rows of 8 bytes, takes about 6,200): a longer command is an
// error (the connection is closed), so the reader never grows.
// Example: "< open can0 >< rawmode >" gives " open can0 " and then " rawmode ".
class XCommandReader {
public:
    static const size_t kMaxCommand = 8192;
    enum Status { kNone, kCommand, kTooLong };
    // Takes one byte; kCommand with the command's text in *command when it ends one.
    Status Take(char c, std::string* command);

private:
    bool inside_ = false;
    std::string text_;
};

// One parsed command.
struct XCommand {
    enum Kind {
        kOpen, kRawMode, kBcmMode, kControlMode, kIsotpMode, kEcho,
        kSend,                                        // send and sendrtr: frame
        kAdd, kUpdate, kDelete,                       // cyclic transmission
        kSubscribe, kUnsubscribe, kFilter, kMuxFilter,  // reception in BCM mode
        kStatistics,
        kBitTiming,                                   // set_* and bittiming, refused
        kBusTiming, kBusMode                          // "< BUS B ... >", "< BUS C ... >" of mode NO_BUS
    };
    Kind kind = kEcho;
    std::string bus;                 // open, bus timing, bus mode
    CAN_OBJ frame;                   // send, add, update: Id, ExtendedFrame, RemoteFrame, DataLength, Data
    unsigned id = 0;                 // delete, subscribe, unsubscribe, filter (and frame.Id)
    bool extended = false;
    uint64_t interval_us = 0;        // add, subscribe, filter
    unsigned char mask[8] = {0};     // filter: the data bits whose change passes a frame
    unsigned mask_len = 0;
    unsigned ms = 0;                 // statistics
    // muxfilter: the rows of 8 bytes, the multiplexer mask first (2 to 257 rows)
    std::vector<unsigned char> rows;
    // bus timing: bitrate sample_point tq prop_seg phase_seg1 phase_seg2 sjw brp (negative: 0);
    // bus mode: listen_only loopback three_samples (0 or 1)
    unsigned values[8] = {0};
};

// Parses the text of one command (without '<' and '>'). False with the text of the error reply in
// *error ("unknown command", "bad identifier", ...). Identifiers are hex, extended when written
// with 8 digits (then masked to 29 bits), otherwise standard and at most 7FF; lengths are decimal
// 0 to 8; data bytes hex, as many as the length says.
// Example: " send 12345678 2 de ad " -> kSend, extended 0x12345678, data DE AD.
bool ParseCommand(const std::string& text, XCommand* cmd, std::string* error);

}  // namespace vexlo_serve
