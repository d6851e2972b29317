#include "tool/SimOptions.h"

#include <cstdlib>
#include <cstring>

namespace vexlo_sim {
namespace {

bool ParseUnsigned(const std::string& s, unsigned long* v, int base = 10) {
    if (s.empty()) return false;
    char* end = nullptr;
    *v = std::strtoul(s.c_str(), &end, base);
    return *end == 0;
}

// "[ADAPTER:]VALUE": the adapter index (default all) and the value.
bool SplitTarget(const std::string& arg, int* adapter, std::string* value) {
    size_t colon = arg.find(':');
    unsigned long a = 0;
    if (colon != std::string::npos && ParseUnsigned(arg.substr(0, colon), &a)) {
        *adapter = static_cast<int>(a);
        *value = arg.substr(colon + 1);
    } else {
        *adapter = -1;
        *value = arg;
    }
    return true;
}

// "CH[@ADAPTER][:RATE[:PATTERN]]", pattern one of seq, seq8, ext, dlc.
bool ParseGenerator(const std::string& arg, SimToolGenerator* g, std::string* error) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t p; (p = arg.find(':', start)) != std::string::npos; start = p + 1)
        parts.push_back(arg.substr(start, p - start));
    parts.push_back(arg.substr(start));
    std::string where = parts[0];
    unsigned long ch = 0, ad = 0;
    size_t at = where.find('@');
    if (at != std::string::npos && !ParseUnsigned(where.substr(at + 1), &ad)) at = std::string::npos - 1;
    if (at == std::string::npos - 1 || !ParseUnsigned(where.substr(0, at), &ch) || ch > 1) {
        *error = "bad generator channel in '" + arg + "'";
        return false;
    }
    g->channel = static_cast<unsigned>(ch);
    g->adapter = static_cast<unsigned>(ad);
    if (parts.size() > 1 && !parts[1].empty()) {
        char* end = nullptr;
        g->cfg.rate = std::strtod(parts[1].c_str(), &end);
        if (*end || g->cfg.rate < 0) {
            *error = "bad generator rate in '" + arg + "'";
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
           "with its exit status (128 + signal number if it was killed).\n"
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
           "                          RATE frames/s (0 or omitted: as fast as the bus allows, e.g.\n"
           "                          21277 frames/s of seq0 at 1 Mbit/s) once the channel is\n"
           "                          started. Identifiers count up from 0 (loss checks); PATTERN:\n"
           "                            seq   standard, 4 data bytes = sequence number (default)\n"
           "                            seq0  standard, no data\n"
           "                            seq8  standard, 8 data bytes, sequence number first\n"
           "                            ext   extended, 8 data bytes\n"
           "                            dlc   standard, data length cycling 0..8\n"
           "  --uncabled              give each channel a bus of its own (a generator per channel\n"
           "                          can then fill both buses at once)\n"
           "  -h, --help              this text\n"
           "  --version               the version of vexlo-sim\n"
           "\n"
           "Received records carry time stamps in units of 100 us since the adapter was plugged.\n"
           "example: vexlo-sim -n 2 --generator 1:1000 -- ./my_can_app\n";
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
                     a == "--serial" || a == "--id-text" || a == "--hw-version" || a == "--fw-version";
        if (!takes) {
            *error = "unknown option '" + a + "' (the program goes after --)";
            return false;
        }
        if (i + 1 >= argc) {
            *error = "option '" + a + "' needs a value";
            return false;
        }
        std::string v = argv[++i];
        if (a == "-n" || a == "--adapters") {
            unsigned long n = 0;
            if (!ParseUnsigned(v, &n) || n > 32) {
                *error = "bad adapter count '" + v + "'";
                return false;
            }
            out->adapters = static_cast<unsigned>(n);
        } else if (a == "-g" || a == "--generator") {
            SimToolGenerator g;
            if (!ParseGenerator(v, &g, error)) return false;
            out->generators.push_back(g);
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
        int which;
        std::string value;
        SplitTarget(o.second, &which, &value);
        for (unsigned k = 0; k < out->adapters; ++k) {
            if (which >= 0 && static_cast<unsigned>(which) != k) continue;
            SimIdentity& id = out->ids[k];
            unsigned long hex = 0;
            if (o.first == "--serial") {
                id.serial = value;
            } else if (o.first == "--id-text") {
                id.id_text = value;
            } else if (ParseUnsigned(value, &hex, 16) && hex <= 0xFFFF) {
                (o.first == "--hw-version" ? id.hw_version : id.fw_version) = static_cast<uint16_t>(hex);
            } else {
                *error = "bad version '" + value + "'";
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
    return true;
}

}  // namespace vexlo_sim
