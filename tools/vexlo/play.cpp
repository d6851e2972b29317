// vexlo play: replays a candump log with its original timing.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Adapter.h"
#include "CanLogLine.h"
#include "Commands.h"
#include "Process.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo play [OPTIONS] FILE\n"
    "\n"
    "Replays the candump log FILE ('-' for standard input) with its original timing. A log\n"
    "channel whose name ends in 0 or 1 (can0, vcan1) goes to that channel unless -m maps channels;\n"
    "with -m only the mapped log channels are played. Bad lines are refused, with the file and\n"
    "line number, before anything is sent; so is a log without frames to play. Error frames in\n"
    "the log are skipped. Exit status 1 when the adapter refuses every frame for a second or the\n"
    "last frames do not leave it within a second (no other node acknowledges them).\n"
    "\n"
    "options:\n"
    "  -t              ignore the time stamps: send as fast as possible\n"
    "  -l N|i          play N times (1 to 1000000), or forever (i)\n"
    "  -m LOG=CH       play log channel LOG on channel CH (0 or 1); may be repeated\n"
    "\n";

struct Item {
    uint64_t time_us;
    unsigned ch;
    CAN_OBJ frame;
};

}  // namespace

int RunPlay(int argc, char** argv) {
    CommonOptions common;
    bool no_timing = false;
    double loops = 1;  // 0: forever
    std::map<std::string, unsigned> mapping;
    std::set<std::string> unseen;  // mapped log channels not found in the log yet
    OwnOptions own = {"tl:m:", nullptr, [&](int code, const char* v) {
                          if (code == 't') {
                              no_timing = true;
                              return true;
                          }
                          if (code == 'l') {
                              loops = 0;
                              return std::string(v) == "i" || TakeNumber("-l", v, 1, 1000000, true, &loops);
                          }
                          std::string m = v;
                          size_t eq = m.find('=');
                          unsigned ch = 0;
                          if (eq == std::string::npos || eq == 0) {
                              Complain("bad mapping '%s' (LOG=CH)", v);
                              return false;
                          }
                          if (!ParseChannel(m.substr(eq + 1), &ch)) return false;
                          mapping[m.substr(0, eq)] = ch;
                          unseen.insert(m.substr(0, eq));
                          return true;
                      }};
    std::vector<std::string> operands;
    std::string file;
    int status = ParseCommandLine(argc, argv, kUsage, own, &common, &operands);
    if (status >= 0) return status;
    if (common.listen_only) {
        Complain("play cannot send with --listen-only");
        return kExitUsage;
    }
    if (!OneOperand(operands, "play", "a log file", &file)) return kExitUsage;
    // The whole log is read and checked first: a bad line sends nothing.
    std::ifstream in;
    std::istream* src = &std::cin;
    if (file != "-") {
        in.open(file);
        if (!in) {
            Complain("cannot read '%s': %s", file.c_str(), std::strerror(errno));
            return kExitUsage;
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
        if (l.error) continue;  // what the bus reported, not a frame anyone sent
        int ch = -1;
        if (!mapping.empty()) {
            auto it = mapping.find(l.channel);
            if (it == mapping.end()) continue;
            unseen.erase(l.channel);
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
    if (!unseen.empty()) {
        Complain("%s: no frames of log channel '%s' (-m)", file.c_str(), unseen.begin()->c_str());
        return kExitUsage;
    }
    if (items.empty()) {
        Complain("%s: no frames to play", file.c_str());
        return kExitUsage;
    }
    XAdapter adapter(common);
    status = adapter.Open();
    if (status != kExitOk) return status;
    for (unsigned ch = 0; ch < 2; ++ch)
        if (used[ch] && !adapter.Start(ch)) return kExitFail;
    unsigned long long played = 0;
    for (double loop = 0; (loops == 0 || loop < loops) && !Stopping(); ++loop) {
        uint64_t start = MonoUs();
        for (Item& it : items) {
            // A stamp earlier than the first (a log that is not in order) plays at once.
            uint64_t base = items[0].time_us;
            if (!no_timing && !adapter.Pause(start + (it.time_us > base ? it.time_us - base : 0))) return kExitFail;
            if (Stopping()) break;
            unsigned took = 0;
            if (!adapter.Offer(it.ch, &it.frame, 1, &took)) {
                if (Stopping()) break;
                if (adapter.Present() && loops > 0)
                    Complain("stopped after %llu of %.0f frames", played, static_cast<double>(items.size()) * loops);
                else if (adapter.Present())
                    Complain("stopped after %llu frames", played);
                return kExitFail;
            }
            ++played;
        }
    }
    // Let the last frames leave the adapter before the channels are reset.
    for (unsigned ch = 0; ch < 2; ++ch) {
        if (used[ch] && !adapter.WaitSent(ch)) {
            if (adapter.Present())
                Complain("frames on channel %u did not leave the adapter within a second %s", ch, kAckHint);
            return kExitFail;
        }
    }
    return kExitOk;
}

}  // namespace vexlo_tool
