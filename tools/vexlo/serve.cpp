// vexlo serve: one adapter shared by many programs and machines over the socketcand protocol.
#include <arpa/inet.h>

#include <string>
#include <vector>

#include "Address.h"
#include "Beacon.h"
#include "Commands.h"
#include "Options.h"
#include "Process.h"
#include "Server.h"
#include "SlcanLine.h"
#include "SocketCanLink.h"

namespace vexlo_tool {

namespace {

const char kUsage[] =
    "usage: vexlo serve [OPTIONS]\n"
    "\n"
    "Opens the adapter, starts both channels and serves them: as Linux CAN interfaces for every\n"
    "SocketCAN program (--socketcan), and as the buses can0 and can1 over the socketcand protocol\n"
    "(TCP; raw, BCM and control modes), for example to python-can's\n"
    "can.Bus(interface=\"socketcand\", host=HOST, port=29536, channel=\"can0\"). Every client of a bus\n"
    "sees every frame of the bus and the frames the other clients send. Runs until Ctrl-C or SIGTERM;\n"
    "an unplugged adapter closes its clients (CAN interfaces stay) and is served again as soon as it\n"
    "is back.\n"
    "\n"
    "options (the common -b and --btr set both channels):\n"
    "  --socketcan IFACE=CH  carry channel CH (0 or 1) on the Linux CAN interface IFACE, a vcan or one\n"
    "                        end of a vxcan pair, for every SocketCAN program (candump, python-can's\n"
    "                        socketcan interface, Wireshark); a missing IFACE is made as a vcan when\n"
    "                        the server may (CAP_NET_ADMIN) and removed when it stops; repeatable\n"
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
    "\n";

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

int RunServe(int argc, char** argv) {
    enum { kListen = 0x200, kBusNames, kAllow, kMaxClients, kBeacon, kNoBeacon, kSlcan, kSlcanTcp, kSocketCan };
    static const option kOptions[] = {{"listen", required_argument, nullptr, kListen},
                                      {"bus-names", required_argument, nullptr, kBusNames},
                                      {"allow", required_argument, nullptr, kAllow},
                                      {"max-clients", required_argument, nullptr, kMaxClients},
                                      {"beacon", required_argument, nullptr, kBeacon},
                                      {"no-beacon", no_argument, nullptr, kNoBeacon},
                                      {"slcan", required_argument, nullptr, kSlcan},
                                      {"slcan-tcp", required_argument, nullptr, kSlcanTcp},
                                      {"socketcan", required_argument, nullptr, kSocketCan},
                                      {nullptr, 0, nullptr, 0}};
    vexlo_serve::XServeOptions o;
    OwnOptions own = {"", kOptions, [&o](int code, const char* value) {
                          std::string arg = value ? value : "", error, host;
                          unsigned port = 0;
                          double clients = 0;
                          switch (code) {
                          case kListen:
                              if (!vexlo_serve::ParseHostPort(arg, 0, &host, &port, &error)) break;
                              o.listen.push_back(arg);
                              return true;
                          case kBusNames:
                              if (BusNames(arg, &o.bus_names)) return true;
                              error = "bad bus names '" + arg + "' (two different names of 1 to 16 characters: N0,N1)";
                              break;
                          case kAllow:
                              if (vexlo_serve::ParseCidrList(arg, &o.allow, &error)) return true;
                              break;
                          case kMaxClients:
                              if (!TakeNumber("--max-clients", value, 1, 100000, true, &clients)) return false;
                              o.max_clients = static_cast<unsigned>(clients);
                              return true;
                          case kBeacon:
                              if (!vexlo_serve::ParseHostPort(arg, vexlo_serve::kBeaconPort, &host, &port, &error)) break;
                              o.beacon_target.sin_family = AF_INET;
                              o.beacon_target.sin_port = htons(static_cast<uint16_t>(port));
                              o.beacon_to = inet_pton(AF_INET, host.c_str(), &o.beacon_target.sin_addr) == 1;
                              if (o.beacon_to) return true;
                              error = "bad beacon address '" + arg + "' (IPv4 ADDR[:PORT])";
                              break;
                          case kSlcan:
                          case kSlcanTcp: {
                              std::string where;
                              unsigned bus = 0;
                              if (!vexlo_serve::ParseSlcanOption(arg, &where, &bus)) {
                                  error = "bad serial line '" + arg + "' (" + (code == kSlcan ? "LINK" : "[ADDR:]PORT") +
                                          "=CH, CH 0 or 1)";
                                  break;
                              }
                              // A TCP line's address is checked here, like --listen's.
                              if (code == kSlcanTcp &&
                                  !vexlo_serve::ParseHostPort(where.find(':') == std::string::npos ? "127.0.0.1:" + where : where,
                                                              0, &host, &port, &error)) {
                                  error = "bad serial line '" + arg + "': " + error;
                                  break;
                              }
                              (code == kSlcan ? o.slcan : o.slcan_tcp).emplace_back(where, bus);
                              return true;
                          }
                          case kSocketCan: {
                              std::string iface;
                              unsigned bus = 0;
                              if (!vexlo_serve::ParseSocketCanOption(arg, &iface, &bus)) {
                                  error = "bad CAN interface '" + arg + "' (IFACE=CH: an interface name of 1 to 15 characters, CH 0 or 1)";
                                  break;
                              }
                              // One interface, one channel: two links on one interface would carry each
                              // other's frames round the bus without end.
                              for (const auto& link : o.socketcan)
                                  if (link.first == iface) error = "CAN interface " + iface + " given twice";
                              if (!error.empty()) break;
                              o.socketcan.emplace_back(iface, bus);
                              return true;
                          }
                          default:
                              o.beacon_off = true;
                              return true;
                          }
                          Complain("%s", error.c_str());
                          return false;
                      }};
    CommonOptions common;
    std::vector<std::string> operands;
    int status = ParseCommandLine(argc, argv, kUsage, own, &common, &operands);
    if (status >= 0) return status;
    if (!operands.empty()) {
        Complain("serve takes no operand, not '%s'", operands[0].c_str());
        return kExitUsage;
    }
    o.hub.dev = common.dev;
    o.hub.btr0 = common.btr0;
    o.hub.btr1 = common.btr1;
    o.hub.listen_only = common.listen_only;
    if (o.listen.empty()) o.listen.push_back("127.0.0.1:29536");
    vexlo_serve::XServer server(o);
    return server.Run();
}

}  // namespace vexlo_tool
