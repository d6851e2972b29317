// vexlo play: replays a candump log with its original timing.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Adapter.h"
#include "CanLogLine.h"
#include "Commands.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo play [OPTIONS] FILE\n"
    "\n"
    "Replays the candump log FILE ('-' for standard input) with its original timing. A log\n"
    "channel whose name ends in 0 or 1 (can0, vcan1) goes to that channel unless -m maps channels;\n"
    "with -m only the mapped log channels are played. Bad lines are refused, with the file and\n"
    "line number, before anything is sent.\n"
    "\n"
    "options:\n"
    "  -t              ignore the time stamps: send as fast as possible\n"
    "  -l N|i          play N times, or forever (i)\n"
    "  -m LOG=CH       play log channel LOG on channel CH (0 or 1); may be repeated\n"
    "  -h, --help      this text\n"
    "  --version       the version\n"
    "common options:\n";

struct Item {
    uint64_t time_us;
    unsigned ch;
    CAN_OBJ frame;
};

// Offers one frame until the adapter takes it; false on a stop or after a second of refusals.
bool SendOne(const CommonOptions& common, unsigned ch, CAN_OBJ* f) {
    uint64_t until = MonoUs() + 1000000;
    while (!Stopping()) {
        unsigned n = VCI_Transmit(kDevType, common.dev, ch, f, 1);
        if (n == 1) return true;
        if (MonoUs() >= until) return false;
        SleepUntil(MonoUs() + 500);
    }
    return false;
}

}  // namespace

int RunPlay(int argc, char** argv) {
    CommonOptions common;
    bool no_timing = false;
    unsigned long long loops = 1;  // 0: forever
    std::map<std::string, unsigned> mapping;
    std::string file;
    XArgs args(argc, argv);
    while (!args.Done()) {
        std::string opt = args.Option(), v;
        if (opt.empty()) {
            if (!TakeOneOperand(&args, &file, "play", "file")) return kExitUsage;
            continue;
        }
        int shared = TakeSharedOption(opt, &args, &common, kUsage);
        if (shared == kOptionTaken) continue;
        if (shared != kOptionOwn) return shared;
        if (opt == "-t") {
            no_timing = true;
        } else if (opt == "-l" || opt == "-m") {
            if (!args.Value(opt, &v)) return kExitUsage;
            if (opt == "-l") {
                char* end = nullptr;
                loops = v == "i" ? 0 : std::strtoull(v.c_str(), &end, 10);
                if (v != "i" && (v.empty() || *end || loops == 0)) {
                    Complain("bad loop count '%s'", v.c_str());
                    return kExitUsage;
                }
            } else {
                size_t eq = v.find('=');
                unsigned ch = 0;
                if (eq == std::string::npos || eq == 0) {
                    Complain("bad mapping '%s' (LOG=CH)", v.c_str());
                    return kExitUsage;
                }
                if (!ParseChannel(v.substr(eq + 1), &ch)) return kExitUsage;
                mapping[v.substr(0, eq)] = ch;
            }
        } else {
            Complain("play: unknown option '%s'", opt.c_str());
            return kExitUsage;
        }
    }
    if (file.empty()) {
        Complain("play needs a log file");
        return kExitUsage;
    }
    // The whole log is read and checked first: a bad line sends nothing.
    std::ifstream in;
    std::istream* src = &std::cin;
    if (file != "-") {
        in.open(file);
        if (!in) {
            Complain("cannot read '%s': %s", file.c_str(), std::strerror(errno));
            return kExitFail;
        }
        src = &in;
    }
    std::vector<Item> items;
    bool used[2] = {false, false};
    std::string text;
    for (unsigned long lineno = 1; std::getline(*src, text); ++lineno) {
        if (!text.empty() && text.back() == '\r') text.pop_back();
        if (text.find_first_not_of(" \t") == std::string::npos) continue;
        LogLine l;
        std::string error;
        if (!ParseLogLine(text, &l, &error)) {
            Complain("%s:%lu: %s", file.c_str(), lineno, error.c_str());
            return kExitUsage;
        }
        int ch = -1;
        if (!mapping.empty()) {
            auto it = mapping.find(l.channel);
            if (it == mapping.end()) continue;
            ch = static_cast<int>(it->second);
        } else {
            ch = LogChannelNumber(l.channel);
            if (ch < 0 || ch > 1) {
                Complain("%s:%lu: log channel '%s' is not 0 or 1: map it with -m %s=CH", file.c_str(), lineno,
                         l.channel.c_str(), l.channel.c_str());
                return kExitUsage;
            }
        }
        used[ch] = true;
        items.push_back({l.time_us, static_cast<unsigned>(ch), l.frame});
    }
    if (src->bad()) {
        Complain("cannot read '%s'", file.c_str());
        return kExitFail;
    }
    if (items.empty()) {
        Complain("%s: no frames to play", file.c_str());
        return kExitOk;
    }
    XAdapter adapter(common);
    int status = adapter.Open();
    if (status != kExitOk) return status;
    for (unsigned ch = 0; ch < 2; ++ch)
        if (used[ch] && !adapter.Start(ch)) return kExitFail;
    unsigned long long played = 0;
    for (unsigned long long loop = 0; (loops == 0 || loop < loops) && !Stopping(); ++loop) {
        uint64_t start = MonoUs();
        for (Item& it : items) {
            // A stamp earlier than the first (a log that is not in order) plays at once.
            uint64_t base = items[0].time_us;
            if (!no_timing) SleepUntil(start + (it.time_us > base ? it.time_us - base : 0));
            if (Stopping()) break;
            if (!SendOne(common, it.ch, &it.frame)) {
                if (!Stopping()) Complain("the adapter refused a frame for a second: stopped after %llu frames", played);
                return kExitFail;
            }
            ++played;
        }
    }
    // Let the last frames leave the adapter before the channels are reset.
    for (unsigned ch = 0; ch < 2; ++ch) {
        if (used[ch] && !adapter.WaitSent(ch)) {
            Complain("frames on channel %u did not leave the adapter within a second", ch);
            return kExitFail;
        }
    }
    return kExitOk;
}

}  // namespace vexlo_tool
