// A packet capture stream of CAN frames (link type 227) through libpcap: to a file, a fifo or an
// already open stream such as standard output.
#pragma once

#include <pcap/pcap.h>

#include <cstdio>
#include <string>

#include "vexlo_ext.h"

namespace vexlo_tool {

class XPcapWriter {
public:
    XPcapWriter() = default;
    ~XPcapWriter() { Close(nullptr); }
    XPcapWriter(const XPcapWriter&) = delete;
    XPcapWriter& operator=(const XPcapWriter&) = delete;

    // Creates (or truncates) the file at `path`, or opens the fifo there for writing (which waits
    // for its reader), and writes the file header: time stamps in microseconds, or nanoseconds
    // when `nano`. False with the reason in *error.
    bool Open(const std::string& path, bool nano, std::string* error);
    // The same on a stream already open for writing, which the writer then owns and closes.
    bool Adopt(FILE* stream, bool nano, std::string* error);

    // Adds one frame, stamped with its host time. Buffered: Flush hands it on.
    void Write(const VEXLO_FRAME& frame);
    // Hands every buffered record to the file or the reader. False when that failed; errno() tells
    // why (EPIPE: the reader of a fifo or pipe has gone).
    bool Flush();
    // Flushes and closes; false (with the reason in *error when not null) when a write failed.
    bool Close(std::string* error);

    int errno_value() const { return errno_; }
    bool is_open() const { return dumper_ != nullptr; }
    // The descriptor written to, -1 when closed.
    int fd() const { return dumper_ ? fileno(pcap_dump_file(dumper_)) : -1; }

private:
    pcap_t* dead_ = nullptr;
    pcap_dumper_t* dumper_ = nullptr;
    bool nano_ = false;
    int errno_ = 0;
};

}  // namespace vexlo_tool
