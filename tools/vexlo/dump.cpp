// vexlo dump: received frames, one line each, as candump prints and logs them.
#include <poll.h>
#include <unistd.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "Adapter.h"
#include "CanFilter.h"
#include "CanFrameText.h"
#include "CanLogLine.h"
#include "CanPcapWriter.h"
#include "CanStatusText.h"
#include "Commands.h"
#include "Process.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo dump [OPTIONS] CH[,CH]\n"
    "\n"
    "Prints the frames received on channel CH (0 or 1, or both: 0,1) until Ctrl-C.\n"
    "Filters as candump: CH:ID:MASK passes frames whose (ID & MASK) matches, CH:ID~MASK those that\n"
    "do not; an 8-digit ID is extended; the mask bits 80000000 and 40000000 compare the extended\n"
    "and remote flags. The adapter's acceptance filter is set to pass them.\n"
    "\n"
    "options:\n"
    "  -t a|d|z|A      time stamps: absolute, delta, zero-based, date\n"
    "  -L              candump log format: (SECONDS.MICROS) canCH ID#DATA\n"
    "  -f FILE         also write the log format to FILE\n"
    "  -w FILE         also write a pcap capture to FILE (Wireshark, tshark); -w -: the capture\n"
    "                  to standard output instead of the text\n"
    "  --nano          nanosecond time stamps in the capture (default microseconds)\n"
    "  -n COUNT        stop after COUNT frames (1 to 1000000000000)\n"
    "  -T SECONDS      stop after SECONDS (0.001 to 2592000)\n"
    "  -e              show the adapter's notices as error frames\n"
    "\n";

struct Channel {
    unsigned ch = 0;
    std::string name;
    std::vector<VEXLO_FILTER> filters;
    bool exact = true;  // the adapter passes exactly the frames the filters pass
    int fd = -1;
    unsigned long long shown = 0;
};

class XDump {
public:
    ~XDump() {
        if (file_) std::fclose(file_);
    }
    int Run();

    CommonOptions common_;
    std::vector<Channel> chans_;
    char tmode_ = 0;
    bool log_ = false;
    bool errors_ = false;
    std::string file_name_;
    FILE* file_ = nullptr;
    std::string pcap_name_;  // -w: "-" for standard output
    XPcapWriter pcap_;
    unsigned long long count_ = 0;  // 0: no limit
    double seconds_ = 0;

private:
    bool Take(XAdapter* adapter, Channel* c);
    void Write(const Channel& c, const VEXLO_FRAME& f);
    std::string Stamp(uint64_t t);
    bool CaptureFailed(bool say);

    unsigned long long total_ = 0;
    bool stamped_ = false;
    bool capture_told_ = false;
    uint64_t first_ = 0, prev_ = 0;
};

std::string XDump::Stamp(uint64_t t) {
    if (!stamped_) first_ = prev_ = t;
    stamped_ = true;
    uint64_t d = tmode_ == 'd' ? t - prev_ : t - first_;
    prev_ = t;
    char stamp[64] = "";
    if (tmode_ == 'a') {
        std::snprintf(stamp, sizeof(stamp), "(%010llu.%06llu) ", (unsigned long long)(t / 1000000),
                      (unsigned long long)(t % 1000000));
    } else if (tmode_ == 'd' || tmode_ == 'z') {
        std::snprintf(stamp, sizeof(stamp), "(%03llu.%06llu) ", (unsigned long long)(d / 1000000),
                      (unsigned long long)(d % 1000000));
    } else if (tmode_ == 'A') {
        time_t sec = static_cast<time_t>(t / 1000000);
        struct tm tm;
        localtime_r(&sec, &tm);
        char date[32];
        std::strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &tm);
        std::snprintf(stamp, sizeof(stamp), "(%s.%06llu) ", date, (unsigned long long)(t % 1000000));
    }
    return stamp;
}

// A write of the capture failed: says why, once, unless `say` is false (the output's failure was
// told already). Returns false.
bool XDump::CaptureFailed(bool say) {
    if (say && !capture_told_) {
        std::string name = pcap_name_ == "-" ? "the output" : "'" + pcap_name_ + "'";
        Complain("cannot write %s: %s", name.c_str(), std::strerror(pcap_.errno_value()));
    }
    capture_told_ = true;
    return false;
}

// The one place a received frame or error frame is written, to standard output and the log file.
void XDump::Write(const Channel& c, const VEXLO_FRAME& f) {
    bool error = (f.flags & VEXLO_FRAME_ERROR) != 0;
    if (pcap_.is_open()) pcap_.Write(f);
    std::string line;
    if (log_ || file_) {
        line = FormatLogLine(f.host_us, c.name, f.frame, error);
        line.push_back('\n');
        if (file_) std::fwrite(line.data(), 1, line.size(), file_);
        if (log_) {
            std::fwrite(line.data(), 1, line.size(), stdout);
            return;
        }
    }
    if (pcap_name_ == "-") return;  // standard output holds the capture
    line = Stamp(f.host_us) + FormatFrameLine(c.name, f.frame, error);
    if (error) line += "\n\t" + ErrorFrameText(f.frame);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
}

// Takes what the channel's queue holds; false when the adapter is gone.
bool XDump::Take(XAdapter* adapter, Channel* c) {
    VEXLO_FRAME buf[256];
    int got = vexlo_receive(common_.dev, c->ch, buf, 256, 0);
    if (got == VEXLO_GONE) {
        adapter->MarkGone();
        return false;
    }
    if (got < 0) {
        Complain("cannot receive on channel %u", c->ch);
        return false;
    }
    for (int k = 0; k < got && (count_ == 0 || total_ < count_); ++k) {
        if (buf[k].flags & VEXLO_FRAME_ERROR) {
            if (errors_) Write(*c, buf[k]);
            continue;
        }
        if (!c->exact && vexlo_filter_pass(c->filters.data(), static_cast<unsigned>(c->filters.size()),
                                           &buf[k].frame) != 1)
            continue;
        Write(*c, buf[k]);
        ++c->shown;
        ++total_;
    }
    return true;
}

int XDump::Run() {
    XAdapter adapter(common_);
    int status = adapter.Open();
    if (status != kExitOk) return status;
    for (Channel& c : chans_) {
        if (!adapter.Start(c.ch, c.filters, &c.exact)) return kExitFail;
        c.fd = vexlo_receive_fd(common_.dev, c.ch);
        // A first take also lets notices wake the descriptor.
        if (c.fd < 0) Complain("cannot receive on channel %u", c.ch);
        if (c.fd < 0 || !Take(&adapter, &c)) return kExitFail;
    }
    uint64_t deadline = seconds_ > 0 ? MonoUs() + static_cast<uint64_t>(seconds_ * 1e6) : 0;
    bool ok = true;
    while (ok && !Stopping() && (count_ == 0 || total_ < count_)) {
        // The channels, a stop, and standard output: a pipe whose reader went away reports an error.
        pollfd fds[4];
        nfds_t n = 0;
        for (const Channel& c : chans_) fds[n++] = {c.fd, POLLIN, 0};
        fds[n++] = {StopFd(), POLLIN, 0};
        fds[n++] = {1, 0, 0};
        int timeout = 1000;  // the unplug is also looked for now and then
        if (deadline) {
            uint64_t now = MonoUs();
            if (now >= deadline) break;
            if (deadline - now < 1000000) timeout = static_cast<int>((deadline - now + 999) / 1000);
        }
        if (poll(fds, n, timeout) < 0 && errno != EINTR) {
            Complain("poll: %s", std::strerror(errno));
            break;
        }
        for (size_t i = 0; i < chans_.size() && ok; ++i)
            if (fds[i].revents & POLLIN) ok = Take(&adapter, &chans_[i]);
        ok = ok && adapter.Present();
        // One write per wake-up: a reader at the other end of a pipe sees frames as they come.
        ok = FlushOut(fds[n - 1].revents & (POLLERR | POLLHUP)) && ok;
        if (file_ && std::fflush(file_) != 0) {
            Complain("cannot write '%s': %s", file_name_.c_str(), std::strerror(errno));
            ok = false;
        }
        if (pcap_.is_open() && !pcap_.Flush()) ok = CaptureFailed(ok);
    }
    if (!ok) status = kExitFail;
    // The summary: what was shown, what the library queued and what it lost for want of room.
    for (const Channel& c : chans_) {
        VEXLO_STATS st;
        std::memset(&st, 0, sizeof(st));
        st.size = sizeof(st);
        vexlo_get_stats(common_.dev, c.ch, &st);
        // Frames the adapter itself could not keep show as its data overrun notices.
        std::string overruns = st.notices[0] ? ", " + std::to_string(st.notices[0]) + " data overruns in the adapter" : "";
        Complain("%s: %llu frames shown, %llu received, %llu lost in the queue%s", c.name.c_str(), c.shown,
                 st.rx_frames, st.rx_lost, overruns.c_str());
        if (st.rx_lost || st.notices[0]) status = kExitFail;
    }
    if (pcap_.is_open() && !pcap_.Close(nullptr)) status = CaptureFailed(true) ? status : kExitFail;
    FILE* file = file_;
    file_ = nullptr;
    if (file && std::fclose(file) != 0) {
        Complain("cannot write '%s': %s", file_name_.c_str(), std::strerror(errno));
        status = kExitFail;
    }
    return status;
}

}  // namespace

int RunDump(int argc, char** argv) {
    XDump d;
    double count = 0;
    bool has_file = false, nano = false;
    static const option kLongs[] = {{"nano", no_argument, nullptr, 0x200}, {nullptr, 0, nullptr, 0}};
    OwnOptions own = {"t:Lf:n:T:ew:", kLongs, [&](int code, const char* v) {
                          switch (code) {
                          case 'w': d.pcap_name_ = v; return true;
                          case 0x200: nano = true; return true;
                          case 'L': d.log_ = true; return true;
                          case 'e': d.errors_ = true; return true;
                          case 'n': return TakeNumber("-n", v, 1, 1e12, true, &count);
                          case 'T': return TakeNumber("-T", v, 0.001, 2592000, false, &d.seconds_);
                          case 'f':
                              d.file_name_ = v;
                              has_file = true;
                              return true;
                          default:
                              if (std::strlen(v) != 1 || !std::strchr("adzA", v[0])) {
                                  Complain("bad time stamp mode '%s' (a, d, z or A)", v);
                                  return false;
                              }
                              d.tmode_ = v[0];
                              return true;
                          }
                      }};
    std::vector<std::string> operands;
    std::string operand;
    int status = ParseCommandLine(argc, argv, kUsage, own, &d.common_, &operands);
    if (status >= 0) return status;
    if (!OneOperand(operands, "dump", "a channel: 0, 1 or 0,1", &operand)) return kExitUsage;
    d.count_ = static_cast<unsigned long long>(count);
    std::vector<ChannelFilters> list;
    std::string error;
    if (!ParseChannelList(operand, &list, &error)) {
        Complain("%s", error.c_str());
        return kExitUsage;
    }
    for (const ChannelFilters& cf : list) {
        Channel c;
        c.ch = cf.channel;
        c.name = "can" + std::to_string(cf.channel);
        c.filters = cf.filters;
        d.chans_.push_back(c);
    }
    if (d.log_ && d.pcap_name_ == "-") {
        Complain("-L and -w - both want standard output");
        return kExitUsage;
    }
    // The capture and the log file are part of the command line: one that cannot be written is refused up front.
    if (has_file) {
        d.file_ = d.file_name_.empty() ? nullptr : std::fopen(d.file_name_.c_str(), "w");
        if (!d.file_) {
            Complain("cannot write '%s': %s", d.file_name_.c_str(),
                     d.file_name_.empty() ? "an empty file name" : std::strerror(errno));
            return kExitUsage;
        }
        setvbuf(d.file_, nullptr, _IOFBF, 1 << 16);
    }
    if (!d.pcap_name_.empty()) {
        // Standard output through a descriptor of the capture's own, which it closes at the end.
        bool opened;
        if (d.pcap_name_ == "-") {
            int fd = dup(1);
            FILE* out = fd >= 0 ? fdopen(fd, "wb") : nullptr;
            if (!out && fd >= 0) close(fd);
            opened = out && d.pcap_.Adopt(out, nano, &error);
        } else {
            opened = d.pcap_.Open(d.pcap_name_, nano, &error);
        }
        if (!opened) {
            Complain("%s", error.empty() ? "cannot write the output" : error.c_str());
            return kExitUsage;
        }
    }
    return d.Run();
}

}  // namespace vexlo_tool
