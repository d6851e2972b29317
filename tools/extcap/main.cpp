// vexlo-extcap: the adapter's channels as capture interfaces of Wireshark and tshark. Wireshark
// runs every program of its extcap folders with --extcap-interfaces, then per interface with
// --extcap-dlts and --extcap-config, to check a capture filter, and with --capture to capture.
#include <getopt.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CanBitRate.h"
#include "CanExtcap.h"
#include "Extcap.h"
#include "vexlo_ext.h"

namespace vexlo_extcap {

namespace {
FILE* g_log = nullptr;
}

void OpenLog(const std::string& path) {
    g_log = std::fopen(path.c_str(), "ae");
    if (!g_log) Complain("cannot open the log file '%s': %s", path.c_str(), std::strerror(errno));
}

void LibraryLine(const char* line) {
    std::fprintf(stderr, "%s\n", line);
    if (g_log) {
        std::fprintf(g_log, "%s\n", line);
        std::fflush(g_log);
    }
}

void Complain(const char* fmt, ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    std::string line = std::string("vexlo-extcap: ") + text;
    LibraryLine(line.c_str());
}

}  // namespace vexlo_extcap

using namespace vexlo_extcap;

namespace {

const char kUsage[] =
    "usage: vexlo-extcap --extcap-interfaces\n"
    "       vexlo-extcap --extcap-interface IFACE --extcap-dlts | --extcap-config\n"
    "       vexlo-extcap --extcap-interface IFACE --capture --fifo PATH [OPTIONS]\n"
    "\n"
    "Wireshark's capture program for vexlo adapters: channel CH of the adapter at position A is the\n"
    "interface vexlo<A>can<CH>. Wireshark and tshark run it from their extcap folder.\n"
    "\n"
    "options of a capture:\n"
    "  --bitrate RATE           bit rate in bit/s (default 500000)\n"
    "  --bitrate-other RATE     any other rate (83.333k, 47619, ...), instead of --bitrate\n"
    "  --btr B0:B1              the bus timing bytes in hex, instead of a rate\n"
    "  --listen-only true|false never acknowledge nor send on the bus (default true)\n"
    "  --log-file FILE          also write the program's and the library's lines to FILE\n"
    "  --extcap-capture-filter FILTERS\n"
    "                           candump filters ID:MASK or ID~MASK, separated by commas or blanks\n"
    "  --extcap-version         the program's version line\n";

// The usual rates offered in the selector; the default is the library's usual 500 kbit/s.
const struct {
    unsigned rate;
    const char* text;
} kRates[] = {{1000000, "1 Mbit/s"}, {800000, "800 kbit/s"}, {500000, "500 kbit/s"},
              {250000, "250 kbit/s"}, {125000, "125 kbit/s"}, {100000, "100 kbit/s"},
              {50000, "50 kbit/s"},    {20000, "20 kbit/s"},   {10000, "10 kbit/s"}};
const unsigned kDefaultRate = 500000;

void PrintConfig() {
    std::printf("arg {number=0}{call=--bitrate}{display=Bit rate}{type=selector}"
                "{tooltip=The bit rate of the bus}{group=Bus}\n");
    for (const auto& r : kRates) {
        std::printf("value {arg=0}{value=%u}{display=%s}{default=%s}\n", r.rate, r.text,
                    r.rate == kDefaultRate ? "true" : "false");
    }
    std::printf("arg {number=1}{call=--bitrate-other}{display=Other bit rate}{type=string}"
                "{tooltip=Any other rate in bit/s (for example 83.333k or 47619), used instead of the rate "
                "above; the controller must reach it within 1%%}{group=Bus}\n");
    std::printf("arg {number=2}{call=--btr}{display=Timing bytes}{type=string}"
                "{validation=^([0-9a-fA-F][0-9a-fA-F]:[0-9a-fA-F][0-9a-fA-F])?$}"
                "{tooltip=The controller's two bus timing bytes in hex (BTR0:BTR1, for example 00:1C), "
                "used instead of a bit rate}{group=Bus}\n");
    std::printf("arg {number=3}{call=--listen-only}{display=Listen only}{type=boolean}{default=true}"
                "{tooltip=Never acknowledge nor send on the bus, so that the capture does not disturb it}"
                "{group=Bus}\n");
    std::printf("arg {number=4}{call=--log-file}{display=Log file}{type=fileselect}{mustexist=false}"
                "{tooltip=A file that also gets the capture's warnings and errors and the library's lines}"
                "{group=Debug}\n");
}

bool TimingFor(const std::string& text, CaptureRequest* req) {
    unsigned rate = 0;
    if (!vexlo_tool::ParseBitRate(text, &rate)) {
        Complain("bad bit rate '%s' (bit/s, for example 500000, 500k or 83.333k)", text.c_str());
        return false;
    }
    unsigned below = 0, above = 0;
    if (vexlo_timing_for_rate(rate, &req->btr0, &req->btr1, &below, &above)) return true;
    // A side with no rate (0) is left out.
    std::string near = below ? std::to_string(below) : "";
    if (above) near += (near.empty() ? "" : " and ") + std::to_string(above);
    Complain("the controller cannot run at %u bit/s; nearest rates that work: %s", rate,
             near.empty() ? "none" : near.c_str());
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    enum Option { kInterfaces = 256, kVersion, kDlts, kConfig, kIface, kCapture, kFifo, kFilter, kControl,
                  kRate, kOtherRate, kBtr, kListenOnly, kLogFile, kHelp };
    static const option kOptions[] = {
        {"extcap-interfaces", no_argument, nullptr, kInterfaces},
        {"extcap-version", optional_argument, nullptr, kVersion},
        {"extcap-dlts", no_argument, nullptr, kDlts},
        {"extcap-config", no_argument, nullptr, kConfig},
        {"extcap-interface", required_argument, nullptr, kIface},
        {"capture", no_argument, nullptr, kCapture},
        {"fifo", required_argument, nullptr, kFifo},
        {"extcap-capture-filter", required_argument, nullptr, kFilter},
        {"extcap-control-in", required_argument, nullptr, kControl},
        {"extcap-control-out", required_argument, nullptr, kControl},
        {"bitrate", required_argument, nullptr, kRate},
        {"bitrate-other", required_argument, nullptr, kOtherRate},
        {"btr", required_argument, nullptr, kBtr},
        {"listen-only", required_argument, nullptr, kListenOnly},
        {"log-file", required_argument, nullptr, kLogFile},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0}};
    int action = 0;
    bool version = false, has_filter = false;
    std::string rate, other_rate, btr;
    CaptureRequest req;
    int c;
    while ((c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
        std::string v = optarg ? optarg : "";
        switch (c) {
        case kInterfaces: case kDlts: case kConfig: case kCapture:
            action = c;
            break;
        case kVersion: version = true; break;
        case kIface: req.interface = v; break;
        case kFifo: req.fifo = v; break;
        case kFilter:
            req.filter = v;
            has_filter = true;
            break;
        case kControl: break;  // no toolbar controls
        case kRate: rate = v; break;
        case kOtherRate: other_rate = v; break;
        case kBtr: btr = v; break;
        case kListenOnly:
            if (v != "true" && v != "false" && v != "1" && v != "0") {
                Complain("bad --listen-only value '%s' (true or false)", v.c_str());
                return kExitUsage;
            }
            req.listen_only = v == "true" || v == "1";
            break;
        case kLogFile:
            if (!v.empty()) OpenLog(v);
            break;
        case kHelp:
            std::fputs(kUsage, stdout);
            return kExitOk;
        default:
            std::fputs(kUsage, stderr);
            return kExitUsage;
        }
    }
    if (optind < argc) {
        Complain("unexpected argument '%s'", argv[optind]);
        return kExitUsage;
    }
    // Every call but the interface list names an interface.
    unsigned adapter = 0, channel = 0;
    bool named = vexlo_tool::ParseExtcapInterface(req.interface, &adapter, &channel);
    if (action == kInterfaces || (version && action == 0 && !has_filter)) {
        // The library's lines (an adapter that cannot be opened) stay out of the list.
        vexlo_set_log([](void*, int, const char*) {}, nullptr);
        if (action == kInterfaces) return ListInterfaces();
        std::printf("extcap {version=%s}\n", vexlo_version());
        return kExitOk;
    }
    if (!named) {
        Complain("%s interface '%s' (vexlo<ADAPTER>can<CHANNEL>, for example vexlo0can1)",
                 req.interface.empty() ? "no" : "unknown", req.interface.c_str());
        return kExitUsage;
    }
    if (action == kDlts) {
        std::printf("dlt {number=227}{name=CAN_SOCKETCAN}{display=SocketCAN}\n");
        return kExitOk;
    }
    if (action == kConfig) {
        PrintConfig();
        return kExitOk;
    }
    if (action == 0 && has_filter) {
        // Wireshark checks a capture filter as it is typed: status 0 when it is good, else the
        // reason on standard output.
        std::vector<VEXLO_FILTER> list;
        std::string error;
        if (vexlo_tool::ParseFilterList(req.filter, &list, &error)) return kExitOk;
        std::printf("%s\n", error.c_str());
        return kExitFail;
    }
    if (action != kCapture) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    if (!btr.empty()) {
        if (!vexlo_tool::ParseTimingBytes(btr, &req.btr0, &req.btr1)) {
            Complain("bad timing bytes '%s' (B0:B1, two hex bytes)", btr.c_str());
            return kExitUsage;
        }
    } else if (!TimingFor(!other_rate.empty() ? other_rate : !rate.empty() ? rate : std::to_string(kDefaultRate),
                          &req)) {
        return kExitUsage;
    }
    return Capture(req);
}
