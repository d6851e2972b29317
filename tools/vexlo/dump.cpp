// vexlo dump: received frames, one line each, as candump prints and logs them.
#include <poll.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <cstring>
#include <string>
#include <vector>

#include "Adapter.h"
#include "CanFilter.h"
#include "CanFrameText.h"
#include "CanLogLine.h"
#include "CanTimeStamp.h"
#include "Commands.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo dump [OPTIONS] CH[,CH]\n"
    "\n"
    "Prints the frames received on channel CH (0 or 1, or both: 0,1) until Ctrl-C.\n"
    "Filters as candump: CH:ID:MASK passes frames whose (ID & MASK) matches, CH:ID~MASK those that\n"
    "do not; an 8-digit ID is extended. Where a channel's filters fit the adapter's acceptance\n"
    "filter they are also set there.\n"
    "\n"
    "options:\n"
    "  -t a|d|z|A      time stamps: absolute, delta, zero-based, date\n"
    "  -L              candump log format: (SECONDS.MICROS) canCH ID#DATA\n"
    "  -f FILE         also write the log format to FILE\n"
    "  -n COUNT        stop after COUNT frames\n"
    "  -T SECONDS      stop after SECONDS\n"
    "  -e              print the adapter's error notices\n"
    "  -h, --help      this text\n"
    "  --version       the version\n"
    "common options:\n";

const char* const kNoticeWords[] = {"data overrun", "error warning", "error passive", "arbitration lost", "bus error"};

struct Channel {
    unsigned ch = 0;
    std::string name;
    std::vector<CanFilter> filters;
    int fd = -1;
    unsigned long long shown = 0;
    XStampClock clock;  // per channel: each channel's times never go backwards
};

class XDump {
public:
    int Run();
    void Print(Channel* c, const CAN_OBJ& f, uint64_t t);
    void Notices(Channel* c);

    CommonOptions common_;
    std::vector<Channel> chans_;
    char tmode_ = 0;
    bool log_ = false;
    bool errors_ = false;
    std::string file_name_;
    FILE* file_ = nullptr;
    unsigned long long count_ = 0;  // 0: no limit
    double seconds_ = 0;
    unsigned long long total_ = 0;
    uint64_t first_ = 0, prev_ = 0;
};

void XDump::Print(Channel* c, const CAN_OBJ& f, uint64_t t) {
    ++c->shown;
    ++total_;
    std::string line;
    if (log_ || file_) {
        line = FormatLogLine(t, c->name, f);
        line.push_back('\n');
        if (file_) std::fwrite(line.data(), 1, line.size(), file_);
        if (log_) {
            std::fwrite(line.data(), 1, line.size(), Out());
            return;
        }
    }
    char stamp[64] = "";
    if (total_ == 1) first_ = prev_ = t;
    uint64_t d = tmode_ == 'd' ? t - prev_ : t - first_;
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
    prev_ = t;
    line = stamp + FormatFrameLine(c->name, f);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), Out());
}

void XDump::Notices(Channel* c) {
    CAN_ERR e;
    std::memset(&e, 0, sizeof(e));
    if (!VCI_ReadErrInfo(kDevType, common_.dev, c->ch, &e) || e.ErrorCode == 0) return;
    std::string words;
    for (int bit = 0; bit < 5; ++bit) {
        if (e.ErrorCode & (1u << bit)) words += std::string(words.empty() ? "" : ", ") + kNoticeWords[bit];
    }
    char line[200];
    std::snprintf(line, sizeof(line), "  %s  ERROR  %s (code 0x%02X)", c->name.c_str(), words.c_str(), e.ErrorCode);
    std::string text = line;
    if (e.ErrorCode & 4) {
        std::snprintf(line, sizeof(line), ", error code capture 0x%02X, receive errors %u, transmit errors %u",
                      e.Code4Data[0], e.Code4Data[1], e.Code4Data[2]);
        text += line;
    }
    if (e.ErrorCode & 8) {
        std::snprintf(line, sizeof(line), ", arbitration lost at bit %u", e.Code8Data & 0x1F);
        text += line;
    }
    // The log format has no place for notices: they go to standard error there.
    std::fprintf(log_ ? stderr : Out(), "%s\n", text.c_str());
}

int XDump::Run() {
    if (!file_name_.empty()) {
        file_ = std::fopen(file_name_.c_str(), "w");
        if (!file_) {
            Complain("cannot write '%s': %s", file_name_.c_str(), std::strerror(errno));
            return kExitFail;
        }
        setvbuf(file_, nullptr, _IOFBF, 1 << 16);
    }
    XAdapter adapter(common_);
    int status = adapter.Open();
    if (status != kExitOk) return status;
    for (Channel& c : chans_) {
        AcceptanceFilter af;
        FitAcceptance(c.filters, &af);
        if (!adapter.Start(c.ch, af)) return kExitFail;
        c.fd = vexlo_receive_fd(common_.dev, c.ch);
        if (c.fd < 0) {
            Complain("no receive descriptor for channel %u", c.ch);
            return kExitFail;
        }
    }
    uint64_t deadline = seconds_ > 0 ? MonoUs() + static_cast<uint64_t>(seconds_ * 1e6) : 0;
    std::vector<CAN_OBJ> buf(4096);
    while (!Stopping() && (count_ == 0 || total_ < count_)) {
        pollfd fds[3];
        nfds_t n = 0;
        for (const Channel& c : chans_) fds[n++] = {c.fd, POLLIN, 0};
        fds[n++] = {StopFd(), POLLIN, 0};
        int timeout = -1;
        if (deadline) {
            uint64_t now = MonoUs();
            if (now >= deadline) break;
            timeout = static_cast<int>((deadline - now + 999) / 1000);
        }
        // Notices do not wake the descriptors: with -e they are also looked for every 100 ms.
        if (errors_ && (timeout < 0 || timeout > 100)) timeout = 100;
        if (poll(fds, n, timeout) < 0 && errno != EINTR) {
            Complain("poll: %s", std::strerror(errno));
            break;
        }
        for (size_t i = 0; i < chans_.size(); ++i) {
            Channel& c = chans_[i];
            if (errors_) Notices(&c);
            if (!(fds[i].revents & POLLIN)) continue;
            // Only ask for what is queued: the receive call pauses 10 ms when its queue is empty.
            // A wake-up that finds nothing (the descriptor may be spuriously readable) still calls
            // it once, since only the receive call makes the descriptor unreadable again.
            unsigned queued = VCI_GetReceiveNum(kDevType, common_.dev, c.ch);
            unsigned ask = queued == 0 ? 1 : queued < buf.size() ? queued : static_cast<unsigned>(buf.size());
            unsigned got = VCI_Receive(kDevType, common_.dev, c.ch, buf.data(), ask, 0);
            if (got == 0 || got > ask) continue;
            uint64_t host = RealUs();
            c.clock.Anchor(buf[got - 1].TimeStamp, host);
            for (unsigned k = 0; k < got && (count_ == 0 || total_ < count_); ++k) {
                uint64_t t = c.clock.Convert(buf[k].TimeStamp, host);
                if (FilterPasses(c.filters, buf[k])) Print(&c, buf[k], t);
            }
        }
        // One write per wake-up: a reader at the other end of a pipe sees frames as they come.
        std::fflush(Out());
    }
    // The summary: what was shown, what the library queued and what it lost for want of room.
    for (const Channel& c : chans_) {
        VEXLO_STATS st;
        std::memset(&st, 0, sizeof(st));
        st.size = sizeof(st);
        vexlo_get_stats(common_.dev, c.ch, &st);
        // Frames the adapter itself could not keep show as its data overrun notices.
        std::string overruns = st.notices[0] ? ", " + std::to_string(st.notices[0]) + " data overruns in the adapter" : "";
        std::fprintf(stderr, "vexlo: %s: %llu frames shown, %llu received, %llu lost in the queue%s\n", c.name.c_str(),
                     c.shown, st.rx_frames, st.rx_lost, overruns.c_str());
        if (st.rx_lost || st.notices[0]) status = kExitFail;
    }
    if (file_ && std::fclose(file_) != 0) {
        Complain("cannot write '%s': %s", file_name_.c_str(), std::strerror(errno));
        status = kExitFail;
    }
    return status;
}

}  // namespace

int RunDump(int argc, char** argv) {
    XDump d;
    XArgs args(argc, argv);
    std::string operand;
    while (!args.Done()) {
        std::string opt = args.Option(), v;
        if (opt.empty()) {
            if (!TakeOneOperand(&args, &operand, "dump", "channel list")) return kExitUsage;
            continue;
        }
        int shared = TakeSharedOption(opt, &args, &d.common_, kUsage);
        if (shared == kOptionTaken) continue;
        if (shared != kOptionOwn) return shared;
        if (opt == "-L") {
            d.log_ = true;
        } else if (opt == "-e") {
            d.errors_ = true;
        } else if (opt == "-t" || opt == "-f" || opt == "-n" || opt == "-T") {
            if (!args.Value(opt, &v)) return kExitUsage;
            char* end = nullptr;
            if (opt == "-t") {
                if (v != "a" && v != "d" && v != "z" && v != "A") {
                    Complain("bad time stamp mode '%s' (a, d, z or A)", v.c_str());
                    return kExitUsage;
                }
                d.tmode_ = v[0];
            } else if (opt == "-f") {
                d.file_name_ = v;
            } else if (opt == "-n") {
                d.count_ = std::strtoull(v.c_str(), &end, 10);
                if (v.empty() || *end || d.count_ == 0) {
                    Complain("bad frame count '%s'", v.c_str());
                    return kExitUsage;
                }
            } else {
                d.seconds_ = std::strtod(v.c_str(), &end);
                if (v.empty() || *end || !(d.seconds_ > 0)) {
                    Complain("bad time '%s'", v.c_str());
                    return kExitUsage;
                }
            }
        } else {
            Complain("dump: unknown option '%s'", opt.c_str());
            return kExitUsage;
        }
    }
    if (operand.empty()) {
        Complain("dump needs a channel: 0, 1 or 0,1");
        return kExitUsage;
    }
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
    return d.Run();
}

}  // namespace vexlo_tool
