// The diagnostic log. Every line is one write to standard output:
//   "<time stamp>: vexlo: <DBG|WRN|ERR>: <function signature><<line>>: <message>"
// WRN and ERR lines are always written; a DBG line only when its bits are set in gdbg. The mask
// test is the only cost of a DBG statement that is switched off: nothing is formatted before it.
#pragma once

#include <cstddef>

#include "XTypes.h"
#include "vexlo.h"

// Mask bits of gdbg.
enum : unsigned int {
    XLOG_GENERAL = 0x1,  // start/end and step lines of the device layer and the calls
    XLOG_XFER = 0x2,     // every line of the transfer object
    XLOG_RECV = 0x4,     // reception steps; with 0x1 also VCI_Receive's start and end lines
    XLOG_TIMEOUT = 0x8,  // with 0x1: an IN transfer that timed out and is armed again
    XLOG_DUMP = 0x10,    // raw packet dumps ("cmd: ", "ack: ", "tx: ")
    XLOG_FRAME = 0x20,   // one line per CAN frame
};

// gdbg is a plain exported integer that applications may write at any time; the library reads it
// with a relaxed atomic load so that a concurrent write is well defined.
inline unsigned int XLogMask() { return __atomic_load_n(&gdbg, __ATOMIC_RELAXED); }
// True when every bit of `bits` is set in gdbg.
inline bool XLogOn(unsigned int bits) { return (XLogMask() & bits) == bits; }

// Formats "<stamp>: vexlo: <level>: <func><<line>>: " + message and writes it in one piece.
void XLogWrite(const char* level, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Writes "<prefix>head" followed by each byte as "%02x " and a newline, as one DBG line.
void XLogDump(const char* func, int line, const char* head, const U8* bytes, size_t n);

// True while this thread runs the application's log function (vexlo_set_log). The calls that
// use a device or USB then fail at once with their failure result and write nothing: the line
// being written may come from a path that holds one of the library's locks (an exchange, the
// receive queues, a transfer), which such a call would wait for on this very thread.
bool XLogInside();

// Where every log line goes. The default writes to standard output; tests may divert it.
typedef void (*XLogSinkFn)(const char* text, size_t len);
void XLogSetSink(XLogSinkFn sink);  // null restores standard output
void XLogStdout(const char* text, size_t len);

#define XDBG(bits, fmt, ...)                                                   \
    do {                                                                       \
        if (XLogOn(bits)) XLogWrite("DBG", __PRETTY_FUNCTION__, __LINE__, fmt, ##__VA_ARGS__); \
    } while (0)
// The same, on behalf of the named function and line (helpers that write a caller's lines).
#define XDBG_AT(bits, func, line, fmt, ...)                                    \
    do {                                                                       \
        if (XLogOn(bits)) XLogWrite("DBG", func, line, fmt, ##__VA_ARGS__);    \
    } while (0)
#define XWRN(fmt, ...) XLogWrite("WRN", __PRETTY_FUNCTION__, __LINE__, fmt, ##__VA_ARGS__)
#define XERR(fmt, ...) XLogWrite("ERR", __PRETTY_FUNCTION__, __LINE__, fmt, ##__VA_ARGS__)
#define XDUMP(bits, head, bytes, n)                                            \
    do {                                                                       \
        if (XLogOn(bits)) XLogDump(__PRETTY_FUNCTION__, __LINE__, head, bytes, n); \
    } while (0)
