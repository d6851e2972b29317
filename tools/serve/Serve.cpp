// vexlo serve: one adapter shared by many programs and machines over the socketcand protocol.
#include "Serve.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Address.h"
#include "Beacon.h"
#include "CanBitRate.h"
#include "Server.h"
#include "vexlo_ext.h"

namespace vexlo_tool {

namespace {

const char kUsage[] =
    "usage: vexlo serve [OPTIONS]\n"
    "\n"
    "Opens the adapter, starts both channels and serves them as the buses can0 and can1 over the\n"
    "socketcand protocol (TCP; raw, BCM and control modes), for example to python-can's\n"
    "can.Bus(interface=\"socketcand\", host=HOST, port=29536, channel=\"can0\"). Every client of a bus\n"
    "sees every frame of the bus and the frames the other clients send. Runs until Ctrl-C or SIGTERM;\n"
    "an unplugged adapter closes its clients and is opened again as soon as it is back.\n"
    "\n"
    "options:\n"
    "  -d DEV                adapter position (default 0)\n"
    "  -b RATE               bit rate of both channels: 1M 800k 500k 250k 125k 100k 50k 20k 10k or\n"
    "                        any rate in bit/s within 1% of a reachable one (default 500k)\n"
    "  --btr B0:B1           raw bus timing bytes in hex, instead of -b\n"
    "  --listen-only         never acknowledge nor send on the bus\n"
    "  --listen ADDR:PORT    where to listen, repeatable (default 127.0.0.1:29536; 0.0.0.0:29536:\n"
    "                        every IPv4 network; [::]:29536 IPv6)\n"
    "  --bus-names N0,N1     the names of the two buses (default can0,can1)\n"
    "  --allow CIDR[,CIDR]   admit only clients from these networks (e.g. 192.168.1.0/24,::1)\n"
    "  --max-clients N       at most N clients at once (default 32)\n"
    "  --beacon ADDR[:PORT]  send the discovery beacon there (default port 42000) instead of\n"
    "                        broadcasting it on the networks listened on (none on loopback alone)\n"
    "  --no-beacon           no beacon\n"
    "  --slcan LINK=CH       serve channel CH (0 or 1) as a serial-line CAN (Lawicel, SLCAN) line on a\n"
    "                        pseudo-terminal reached through the link LINK (e.g. /tmp/ttyVEXLO0);\n"
    "                        repeatable\n"
    "  --slcan-tcp [ADDR:]PORT=CH  the same on a TCP port (default address 127.0.0.1); repeatable\n"
    "  -h, --help            this text\n"
    "  --version             the version\n";

void Complain(const std::string& text) { std::fprintf(stderr, "vexlo: %s\n", text.c_str()); }

bool Number(const char* text, unsigned long max, unsigned long* out) {
    char* end = nullptr;
    unsigned long v = std::strtoul(text, &end, 10);
    if (!*text || *end || *text == '-' || *text == '+' || v > max) return false;
    *out = v;
    return true;
}

bool BusNames(const std::string& text, std::vector<std::string>* names) {
    size_t comma = text.find(',');
    if (comma == std::string::npos) return false;
    std::string a = text.substr(0, comma), b = text.substr(comma + 1);
    for (const std::string& n : {a, b})
        if (n.empty() || n.size() > 16 || n.find_first_of(" \t<>,\"&") != std::string::npos) return false;
    if (a == b) return false;
    *names = {a, b};
    return true;
}

}  // namespace

int RunServe(int argc, char** argv, FILE* out) {
    enum { kBtr = 256, kListenOnly, kListen, kBusNames, kAllow, kMaxClients, kBeacon, kNoBeacon, kVersion, kSlcan, kSlcanTcp };
    static const option kOptions[] = {{"btr", required_argument, nullptr, kBtr},
                                      {"listen-only", no_argument, nullptr, kListenOnly},
                                      {"listen", required_argument, nullptr, kListen},
                                      {"bus-names", required_argument, nullptr, kBusNames},
                                      {"allow", required_argument, nullptr, kAllow},
                                      {"max-clients", required_argument, nullptr, kMaxClients},
                                      {"beacon", required_argument, nullptr, kBeacon},
                                      {"no-beacon", no_argument, nullptr, kNoBeacon},
                                      {"slcan", required_argument, nullptr, kSlcan},
                                      {"slcan-tcp", required_argument, nullptr, kSlcanTcp},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"version", no_argument, nullptr, kVersion},
                                      {nullptr, 0, nullptr, 0}};
    std::vector<char*> args;
    static char kName[] = "vexlo serve";
    args.push_back(kName);
    for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    vexlo_serve::XServeOptions o;
    std::string error;
    optind = 0;
    opterr = 0;
    int c;
    unsigned long v = 0;
    while ((c = getopt_long(static_cast<int>(args.size() - 1), args.data(), "+:d:b:h", kOptions, nullptr)) != -1) {
        std::string arg = optarg ? optarg : "";
        switch (c) {
        case 'd':
            if (!Number(optarg, 31, &v)) return Complain("bad adapter position '" + arg + "' (0 to 31)"), 2;
            o.hub.dev = static_cast<unsigned>(v);
            break;
        case 'b': {
            unsigned rate = 0, below = 0, above = 0;
            if (!ParseBitRate(arg, &rate)) return Complain("bad bit rate '" + arg + "'"), 2;
            if (!vexlo_timing_for_rate(rate, &o.hub.btr0, &o.hub.btr1, &below, &above))
                return Complain("no bit timing within 1% of " + std::to_string(rate) +
                                " bit/s; the nearest rates that work: " + std::to_string(below) + ", " +
                                std::to_string(above)),
                       2;
            break;
        }
        case kBtr:
            if (!ParseTimingBytes(arg, &o.hub.btr0, &o.hub.btr1))
                return Complain("bad timing bytes '" + arg + "' (B0:B1, two hex bytes)"), 2;
            break;
        case kListenOnly:
            o.hub.listen_only = true;
            break;
        case kListen: {
            std::string host;
            unsigned port = 0;
            if (!vexlo_serve::ParseHostPort(arg, 0, &host, &port, &error)) return Complain(error), 2;
            o.listen.push_back(arg);
            break;
        }
        case kBusNames:
            if (!BusNames(arg, &o.bus_names))
                return Complain("bad bus names '" + arg + "' (two different names of 1 to 16 characters: N0,N1)"), 2;
            break;
        case kAllow:
            if (!vexlo_serve::ParseCidrList(arg, &o.allow, &error)) return Complain(error), 2;
            break;
        case kMaxClients:
            if (!Number(optarg, 100000, &v) || v == 0) return Complain("bad client count '" + arg + "'"), 2;
            o.max_clients = static_cast<unsigned>(v);
            break;
        case kBeacon: {
            std::string host;
            unsigned port = 0;
            if (!vexlo_serve::ParseHostPort(arg, vexlo_serve::kBeaconPort, &host, &port, &error)) return Complain(error), 2;
            o.beacon_target.sin_family = AF_INET;
            o.beacon_target.sin_port = htons(static_cast<uint16_t>(port));
            if (inet_pton(AF_INET, host.c_str(), &o.beacon_target.sin_addr) != 1)
                return Complain("bad beacon address '" + arg + "' (IPv4 ADDR[:PORT])"), 2;
            o.beacon_to = true;
            break;
        }
        case kNoBeacon:
            o.beacon_off = true;
            break;
        case kSlcan:
        case kSlcanTcp: {
            std::string where;
            unsigned bus = 0;
            if (!vexlo_serve::ParseSlcanOption(arg, &where, &bus))
                return Complain("bad serial line '" + arg + "' (" + (c == kSlcan ? "LINK" : "[ADDR:]PORT") + "=CH, CH 0 or 1)"), 2;
            (c == kSlcan ? o.slcan : o.slcan_tcp).emplace_back(where, bus);
            break;
        }
        case 'h':
            std::fputs(kUsage, out);
            return 0;
        case kVersion:
            std::fprintf(out, "vexlo %s\n", vexlo_version());
            return 0;
        case ':':
            return Complain(std::string("option ") + args[static_cast<size_t>(optind) - 1] + " needs a value"), 2;
        default:
            return Complain(std::string("serve: unknown option '") + args[static_cast<size_t>(optind) - 1] + "'"), 2;
        }
    }
    if (optind < static_cast<int>(args.size() - 1))
        return Complain(std::string("serve takes no operand, not '") + args[static_cast<size_t>(optind)] + "'"), 2;
    if (o.listen.empty()) o.listen.push_back("127.0.0.1:29536");
    vexlo_serve::XServer server(o);
    return server.Run();
}

}  // namespace vexlo_tool
