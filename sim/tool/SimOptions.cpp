#include "tool/SimOptions.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace vexlo_sim {
namespace {

// The largest values that make sense: adapter positions, seconds from the start (a year), an
// answer delay (an hour), generator rates in frames per second.
const unsigned long kMaxAdapters = 32;
const double kMaxSeconds = 366 * 86400.0;
const unsigned long kMaxDelayMs = 3600000;
const double kMinRate = 0.001, kMaxRate = 1000000;

// Digits only (hex digits for base 16), no sign or blanks, at most `max`.
bool ParseUnsigned(const std::string& s, unsigned long* v, unsigned long max, int base = 10) {
    if (s.empty() || s.size() > 12 ||
        s.find_first_not_of(base == 16 ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos)
        return false;
    *v = std::strtoul(s.c_str(), nullptr, base);
    return *v <= max;
}

std::vector<std::string> Split(const std::string& arg) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t p; (p = arg.find(':', start)) != std::string::npos; start = p + 1)
        parts.push_back(arg.substr(start, p - start));
    parts.push_back(arg.substr(start));
    return parts;
}

// Seconds since the program started: 0 to a year, fractions allowed.
bool ParseSeconds(const std::string& s, double* v) {
    if (s.empty()) return false;
    char* end = nullptr;
    *v = std::strtod(s.c_str(), &end);
    return *end == 0 && std::isfinite(*v) && *v >= 0 && *v <= kMaxSeconds;
}

// "A:AT[:BACK]".
bool ParseUnplug(const std::string& arg, SimToolUnplug* u, std::string* error) {
    std::vector<std::string> p = Split(arg);
    unsigned long a = 0;
    bool ok = (p.size() == 2 || p.size() == 3) && ParseUnsigned(p[0], &a, kMaxAdapters) &&
              ParseSeconds(p[1], &u->at) && (p.size() == 2 || (ParseSeconds(p[2], &u->back) && u->back > u->at));
    u->adapter = static_cast<unsigned>(a);
    if (!ok)
        *error = "bad unplug '" + arg + "' (A:AT[:BACK] in seconds from the start, at most 31622400, BACK after AT)";
    return ok;
}

// "A:MS[:AT]".
bool ParseDelay(const std::string& arg, SimToolDelay* d, std::string* error) {
    std::vector<std::string> p = Split(arg);
    unsigned long a = 0, ms = 0;
    bool ok = (p.size() == 2 || p.size() == 3) && ParseUnsigned(p[0], &a, kMaxAdapters) &&
              ParseUnsigned(p[1], &ms, kMaxDelayMs) && (p.size() == 2 || ParseSeconds(p[2], &d->at));
    d->adapter = static_cast<unsigned>(a);
    d->ms = static_cast<unsigned>(ms);
    if (!ok) *error = "bad answer delay '" + arg + "' (A:MS[:AT], MS at most 3600000, AT in seconds, at most 31622400)";
    return ok;
}

// Two unplugs of one adapter must not overlap: the second would find it unplugged already.
bool UnplugsOverlap(const SimToolUnplug& x, const SimToolUnplug& y) {
    double x_end = x.back < 0 ? HUGE_VAL : x.back, y_end = y.back < 0 ? HUGE_VAL : y.back;
    return x.adapter == y.adapter && x.at < y_end && y.at < x_end;
}

// "[ADAPTER:]VALUE": the adapter index (default all: -1) and the value; digits before the first
// colon name the adapter. False when those digits go beyond any adapter.
bool SplitTarget(const std::string& arg, long* adapter, std::string* value) {
    size_t colon = arg.find(':');
    std::string head = colon == std::string::npos ? std::string() : arg.substr(0, colon);
    unsigned long a = 0;
    *adapter = -1;
    *value = arg;
    if (head.empty() || head.find_first_not_of("0123456789") != std::string::npos) return true;
    *value = arg.substr(colon + 1);
    if (!ParseUnsigned(head, &a, kMaxAdapters)) return false;
    *adapter = static_cast<long>(a);
    return true;
}

// "CH[@ADAPTER][:RATE[:PATTERN]]", pattern one of seq, seq8, ext, dlc.
bool ParseGenerator(const std::string& arg, SimToolGenerator* g, std::string* error) {
    std::vector<std::string> parts = Split(arg);
    std::string where = parts[0];
    unsigned long ch = 0, ad = 0;
    size_t at = where.find('@');
    if (at != std::string::npos && !ParseUnsigned(where.substr(at + 1), &ad, kMaxAdapters - 1)) {
        *error = "bad generator adapter in '" + arg + "' (at most 31)";
        return false;
    }
    if (!ParseUnsigned(where.substr(0, at), &ch, 1)) {
        *error = "bad generator channel in '" + arg + "' (0 or 1)";
        return false;
    }
    g->channel = static_cast<unsigned>(ch);
    g->adapter = static_cast<unsigned>(ad);
    if (parts.size() > 1 && !parts[1].empty()) {
        char* end = nullptr;
        g->cfg.rate = std::strtod(parts[1].c_str(), &end);
        bool sane = g->cfg.rate == 0 || (g->cfg.rate >= kMinRate && g->cfg.rate <= kMaxRate);
        if (*end || !sane) {
            *error = "bad generator rate in '" + arg + "' (frames/s from 0.001 to 1000000, or 0 for the bus ceiling)";
            return false;
        }
    }
    std::string pattern = parts.size() > 2 ? parts[2] : "seq";
    if (pattern == "seq") {
        g->cfg.dlc = 4;
    } else if (pattern == "seq0") {
        g->cfg.dlc = 0;
    } else if (pattern == "seq8") {
        g->cfg.dlc = 8;
    } else if (pattern == "ext") {
        g->cfg.ext = true;
        g->cfg.dlc = 8;
    } else if (pattern == "dlc") {
        g->cfg.dlc = -1;
    } else {
        *error = "unknown generator pattern '" + pattern + "'";
        return false;
    }
    return true;
}

}  // namespace

const char* SimUsage() {
    return "usage: vexlo-sim [OPTIONS] -- PROGRAM [ARGS...]\n"
           "\n"
           "Runs PROGRAM (any libusb program, or one linked with libvexlo, unmodified) in a child\n"
           "process against simulated two-channel USB-to-CAN adapters (USB 0471:1200), and exits\n"
           "with its exit status (128 + signal number if it was killed). SIGTERM, SIGINT and\n"
           "SIGHUP go on to PROGRAM's process group; what has not ended 5 s later is killed.\n"
           "\n"
           "Each adapter's channel 0 and channel 1 are cabled together: a frame sent on one is\n"
           "received on the other when both are started at the same bit rate.\n"
           "\n"
           "options:\n"
           "  -n, --adapters N        number of adapters, positions 0..N-1 (default 1; 0 = none)\n"
           "  --serial [A:]TEXT       serial number of adapter A (default all), at most 14 chars;\n"
           "                          default VXSIM0000, VXSIM0001, ... by position\n"
           "  --id-text [A:]TEXT      identification text (default VEXLO-SIM)\n"
           "  --hw-version [A:]HEX    hardware version, e.g. 0210\n"
           "  --fw-version [A:]HEX    firmware version, e.g. 0318\n"
           "  -g, --generator CH[@A][:RATE[:PATTERN]]\n"
           "                          a remote node on channel CH of adapter A sending frames at\n"
           "                          RATE frames/s, 0.001 to 1000000 (0 or omitted: as fast as\n"
           "                          the bus allows, e.g. 21277 frames/s of seq0 at 1 Mbit/s)\n"
           "                          once the channel is started. Identifiers count up from 0\n"
           "                          (loss checks); PATTERN:\n"
           "                            seq   standard, 4 data bytes = sequence number (default)\n"
           "                            seq0  standard, no data\n"
           "                            seq8  standard, 8 data bytes, sequence number first\n"
           "                            ext   extended, 8 data bytes\n"
           "                            dlc   standard, data length cycling 0..8\n"
           "  --uncabled              give each channel a bus of its own (a generator per channel\n"
           "                          can then fill both buses at once)\n"
           "  --unplug A:AT[:BACK]    unplug adapter A AT seconds after PROGRAM starts, and plug it\n"
           "                          back BACK seconds after the start (omitted: never). Transfers\n"
           "                          in flight end with no-device, later ones fail; the replugged\n"
           "                          adapter has a new device number and its channels in reset.\n"
           "                          Fractions allowed (0.5); may be given more than once\n"
           "  --answer-delay A:MS[:AT]\n"
           "                          from AT seconds after the start (default 0), adapter A answers\n"
           "                          every command and transmit packet MS milliseconds late (a slow\n"
           "                          adapter; past the host's wait an answer comes after its call)\n"
           "  --trace FILE            write every frame completed on each simulated bus to FILE (-:\n"
           "                          stderr) in the candump log format, e.g.\n"
           "                            (1700000000.123456) sim0can1 123#DEADBEEF\n"
           "                          simAcanCH names the adapter and channel (or generator) that\n"
           "                          sent it, the time is the host's wall clock. Each bus then also\n"
           "                          has a listening analyser that, like any error-active node,\n"
           "                          acknowledges frames: a lone sender's frames complete\n"
           "  -h, --help              this text\n"
           "  --version               the version of vexlo-sim\n"
           "\n"
           "Received records carry time stamps in units of 100 us since the adapter was plugged.\n"
           "examples: vexlo-sim -n 2 --generator 1:1000 -- ./my_can_app\n"
           "          vexlo-sim --unplug 0:2:5 --answer-delay 0:1500:8 --trace - -- ./my_can_app\n";
}

bool SimParseOptions(int argc, char** argv, SimToolOptions* out, std::string* error) {
    std::vector<std::pair<std::string, std::string>> idopts;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        }
        if (a == "-h" || a == "--help") {
            out->help = true;
            return true;
        }
        if (a == "--version") {
            out->version = true;
            return true;
        }
        if (a == "--uncabled") {
            out->uncabled = true;
            continue;
        }
        bool takes = a == "-n" || a == "--adapters" || a == "-g" || a == "--generator" ||
                     a == "--serial" || a == "--id-text" || a == "--hw-version" || a == "--fw-version" ||
                     a == "--unplug" || a == "--answer-delay" || a == "--trace";
        if (!takes) {
            *error = "unknown option '" + a + "' (the program goes after --)";
            return false;
        }
        if (i + 1 >= argc || std::strcmp(argv[i + 1], "--") == 0) {
            *error = "option '" + a + "' needs a value";
            return false;
        }
        std::string v = argv[++i];
        if (a == "-n" || a == "--adapters") {
            unsigned long n = 0;
            if (!ParseUnsigned(v, &n, kMaxAdapters)) {
                *error = "bad adapter count '" + v + "' (0 to 32)";
                return false;
            }
            out->adapters = static_cast<unsigned>(n);
        } else if (a == "-g" || a == "--generator") {
            SimToolGenerator g;
            if (!ParseGenerator(v, &g, error)) return false;
            out->generators.push_back(g);
        } else if (a == "--unplug") {
            SimToolUnplug u;
            if (!ParseUnplug(v, &u, error)) return false;
            out->unplugs.push_back(u);
        } else if (a == "--answer-delay") {
            SimToolDelay d;
            if (!ParseDelay(v, &d, error)) return false;
            out->delays.push_back(d);
        } else if (a == "--trace") {
            if (v.empty()) {
                *error = "option '--trace' needs a file name or -";
                return false;
            }
            out->trace = v;
        } else {
            idopts.emplace_back(a, v);
        }
    }
    for (; i < argc; ++i) out->program.push_back(argv[i]);
    if (out->program.empty()) {
        *error = "no program given (vexlo-sim [OPTIONS] -- PROGRAM [ARGS...])";
        return false;
    }
    out->ids.assign(out->adapters, SimIdentity());
    for (const auto& o : idopts) {
        long which;
        std::string value;
        if (!SplitTarget(o.second, &which, &value) || which >= static_cast<long>(out->adapters)) {
            *error = o.first + " names adapter " + o.second.substr(0, o.second.find(':')) + ", which does not exist";
            return false;
        }
        if ((o.first == "--serial" || o.first == "--id-text") && value.size() > SimAdapter::kMaxText) {
            *error = o.first + " '" + value + "' is longer than " + std::to_string(SimAdapter::kMaxText) +
                     " characters";
            return false;
        }
        for (unsigned k = 0; k < out->adapters; ++k) {
            if (which >= 0 && static_cast<unsigned>(which) != k) continue;
            SimIdentity& id = out->ids[k];
            unsigned long hex = 0;
            if (o.first == "--serial") {
                id.serial = value;
            } else if (o.first == "--id-text") {
                id.id_text = value;
            } else if (ParseUnsigned(value, &hex, 0xFFFF, 16)) {
                (o.first == "--hw-version" ? id.hw_version : id.fw_version) = static_cast<uint16_t>(hex);
            } else {
                *error = "bad version '" + value + "' (hex, at most FFFF)";
                return false;
            }
        }
    }
    for (const SimToolGenerator& g : out->generators) {
        if (g.adapter >= out->adapters) {
            *error = "generator names adapter " + std::to_string(g.adapter) + ", which does not exist";
            return false;
        }
    }
    for (size_t k = 0; k < out->unplugs.size(); ++k) {
        const SimToolUnplug& u = out->unplugs[k];
        if (u.adapter >= out->adapters) {
            *error = "unplug names adapter " + std::to_string(u.adapter) + ", which does not exist";
            return false;
        }
        for (size_t j = 0; j < k; ++j) {
            if (UnplugsOverlap(u, out->unplugs[j])) {
                *error = "unplugs of adapter " + std::to_string(u.adapter) + " overlap";
                return false;
            }
        }
    }
    for (const SimToolDelay& d : out->delays) {
        if (d.adapter >= out->adapters) {
            *error = "answer delay names adapter " + std::to_string(d.adapter) + ", which does not exist";
            return false;
        }
    }
    return true;
}

}  // namespace vexlo_sim
