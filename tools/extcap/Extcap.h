// vexlo-extcap: Wireshark's capture program for the adapter's channels. One file per call
// Wireshark makes: the interface list and the capture; main.cpp reads the options.
#pragma once

#include <string>

namespace vexlo_extcap {

enum { kExitOk = 0, kExitFail = 1, kExitUsage = 2 };

// What the capture call asks for.
struct CaptureRequest {
    std::string interface;
    std::string fifo;
    std::string filter;        // the capture filter, candump filters
    unsigned char btr0 = 0x00, btr1 = 0x1C;
    bool listen_only = true;
};

// --log-file: a file that gets, beside standard error, the program's own lines and the library's
// during a capture. Appended to; a file that cannot be opened is said so on standard error.
void OpenLog(const std::string& path);

// --extcap-interfaces: one interface per channel of every adapter present.
int ListInterfaces();

// --capture: streams the channel's frames into the fifo until the reader goes or a stop signal.
int Capture(const CaptureRequest& request);

// Prints "vexlo-extcap: " + message + newline to standard error, where Wireshark reads it, and to
// the log file.
void Complain(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// A line of the library's, as it wrote it, to standard error and the log file.
void LibraryLine(const char* line);

}  // namespace vexlo_extcap
