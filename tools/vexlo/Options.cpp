#include "Options.h"

#include <cstdio>
#include <iterator>

#include "CanBitRate.h"
#include "CanNumber.h"
#include "Process.h"
#include "vexlo_ext.h"

namespace vexlo_tool {
namespace {

// Codes of the long-only common options, above every character.
enum { kOptBtr = 0x100, kOptListenOnly, kOptVersion };

const char kCommonLetters[] = "d:b:vh";
const option kCommonLongs[] = {{"btr", required_argument, nullptr, kOptBtr},
                               {"listen-only", no_argument, nullptr, kOptListenOnly},
                               {"verbose", no_argument, nullptr, 'v'},
                               {"help", no_argument, nullptr, 'h'},
                               {"version", no_argument, nullptr, kOptVersion}};

bool TakeCommon(int code, const char* value, CommonOptions* common) {
    if (code == 'd') {
        double d = 0;
        if (!TakeNumber("-d", value, 0, 31, true, &d)) return false;
        common->dev = static_cast<unsigned>(d);
    } else if (code == 'b') {
        unsigned rate = 0, below = 0, above = 0;
        if (!ParseBitRate(value, &rate)) {
            Complain("bad bit rate '%s' (bit/s with an optional k or M, for example 500k or 83333)", value);
            return false;
        }
        if (!vexlo_timing_for_rate(rate, &common->btr0, &common->btr1, &below, &above)) {
            std::string near = below ? std::to_string(below) : "";
            if (above) near += (near.empty() ? "" : ", ") + std::to_string(above);
            Complain("bit rate %u cannot be reached within 1%% at 16 MHz; nearest rates: %s", rate,
                     near.empty() ? "none" : near.c_str());
            return false;
        }
    } else if (code == kOptBtr) {
        if (!ParseTimingBytes(value, &common->btr0, &common->btr1)) {
            Complain("bad timing bytes '%s' (B0:B1, two hex bytes)", value);
            return false;
        }
    } else if (code == 'v') {
        common->verbose = true;
        ShowLibraryLines();
    } else {
        common->listen_only = true;
    }
    return true;
}

}  // namespace

const char kCommonHelp[] =
    "common options:\n"
    "  -d DEV          adapter position, 0 to 31 (default 0)\n"
    "  -b RATE         bit rate: 1M 800k 500k 250k 125k 100k 50k 20k 10k or any rate in bit/s\n"
    "                  within 1% of a reachable one (default 500k)\n"
    "  --btr B0:B1     raw bus timing bytes in hex, instead of -b\n"
    "  --listen-only   never acknowledge nor send on the bus\n"
    "  -v, --verbose   also show the library's own warnings and errors\n"
    "  -h, --help      this text\n"
    "  --version       the version\n";

int ParseCommandLine(int argc, char** argv, const char* usage, const OwnOptions& own, CommonOptions* common,
                     std::vector<std::string>* operands) {
    // One table: the common options, then the subcommand's own.
    std::string letters = std::string(":") + kCommonLetters + own.letters;
    std::vector<option> longs(std::begin(kCommonLongs), std::end(kCommonLongs));
    for (const option* o = own.longs; o && o->name; ++o) longs.push_back(*o);
    longs.push_back(option{nullptr, 0, nullptr, 0});
    optind = 0;  // a fresh scan
    opterr = 0;
    for (;;) {
        int code = getopt_long(argc, argv, letters.c_str(), longs.data(), nullptr);
        if (code == -1) break;
        const char* written = argv[optind - 1];
        if (code == '?') {
            if (optopt && optopt < 0x100) Complain("%s: unknown option '-%c'", argv[0], optopt);
            else if (optopt) Complain("option '%s' takes no value", written);
            else Complain("%s: unknown option '%s'", argv[0], written);
            return kExitUsage;
        }
        if (code == ':') {
            if (optopt && optopt < 0x100) Complain("option -%c needs a value", optopt);
            else Complain("option %s needs a value", written);
            return kExitUsage;
        }
        if (code == 'h') {
            std::fputs(usage, stdout);
            std::fputs(kCommonHelp, stdout);
            return kExitOk;
        }
        if (code == kOptVersion) {
            std::printf("vexlo %s\n", vexlo_version());
            return kExitOk;
        }
        bool ok = code == 'd' || code == 'b' || code == 'v' || code == kOptBtr || code == kOptListenOnly
                      ? TakeCommon(code, optarg, common)
                      : own.take(code, optarg);
        if (!ok) return kExitUsage;
    }
    operands->assign(argv + optind, argv + argc);
    return -1;
}

bool TakeNumber(const char* option, const char* text, double min, double max, bool whole, double* value) {
    std::string range;
    if (ParseBounded(text, min, max, whole, value, &range)) return true;
    Complain("bad value '%s' for %s: %s", text, option, range.c_str());
    return false;
}

bool ParseChannel(const std::string& text, unsigned* channel) {
    if (text != "0" && text != "1") {
        Complain("bad channel '%s' (0 or 1)", text.c_str());
        return false;
    }
    *channel = static_cast<unsigned>(text[0] - '0');
    return true;
}

bool OneOperand(const std::vector<std::string>& operands, const char* sub, const char* what, std::string* operand) {
    if (operands.empty()) {
        Complain("%s needs %s", sub, what);
        return false;
    }
    if (operands.size() > 1) {
        Complain("%s takes one operand, not '%s'", sub, operands[1].c_str());
        return false;
    }
    *operand = operands[0];
    return true;
}

}  // namespace vexlo_tool
