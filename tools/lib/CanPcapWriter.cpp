#include "CanPcapWriter.h"

#include <cerrno>
#include <cstring>

#include "CanPcap.h"

namespace vexlo_tool {

bool XPcapWriter::Open(const std::string& path, bool nano, std::string* error) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        errno_ = errno;
        *error = "cannot write '" + path + "': " + std::strerror(errno_);
        return false;
    }
    if (Adopt(f, nano, error)) return true;
    *error = "cannot write '" + path + "': " + *error;
    return false;
}

bool XPcapWriter::Adopt(FILE* stream, bool nano, std::string* error) {
    Close(nullptr);
    nano_ = nano;
    errno_ = 0;
    dead_ = pcap_open_dead_with_tstamp_precision(kLinkTypeSocketCan, 65535,
                                                 nano ? PCAP_TSTAMP_PRECISION_NANO : PCAP_TSTAMP_PRECISION_MICRO);
    if (!dead_) {
        std::fclose(stream);
        *error = "libpcap cannot make a capture of link type 227";
        return false;
    }
    dumper_ = pcap_dump_fopen(dead_, stream);
    if (!dumper_) {
        *error = pcap_geterr(dead_);
        std::fclose(stream);
        pcap_close(dead_);
        dead_ = nullptr;
        return false;
    }
    return true;
}

void XPcapWriter::Write(const VEXLO_FRAME& frame) {
    uint8_t record[kSocketCanRecordSize];
    EncodeSocketCan(frame, record);
    pcap_pkthdr h;
    std::memset(&h, 0, sizeof(h));
    uint32_t sec, frac;
    PcapStamp(frame.host_us, nano_, &sec, &frac);
    h.ts.tv_sec = static_cast<time_t>(sec);
    h.ts.tv_usec = static_cast<suseconds_t>(frac);  // nanoseconds in a nanosecond capture
    h.caplen = h.len = kSocketCanRecordSize;
    pcap_dump(reinterpret_cast<u_char*>(dumper_), &h, record);
    // A full buffer is written out inside pcap_dump: keep the reason of a failure there.
    if (errno_ == 0 && std::ferror(pcap_dump_file(dumper_))) errno_ = errno ? errno : EIO;
}

bool XPcapWriter::Flush() {
    if (!dumper_) return false;
    if (errno_ == 0 && pcap_dump_flush(dumper_) != 0) errno_ = errno ? errno : EIO;
    return errno_ == 0;
}

bool XPcapWriter::Close(std::string* error) {
    if (!dumper_) return errno_ == 0;
    bool ok = Flush();
    pcap_dump_close(dumper_);
    pcap_close(dead_);
    dumper_ = nullptr;
    dead_ = nullptr;
    if (!ok && error) *error = std::strerror(errno_);
    return ok;
}

}  // namespace vexlo_tool
