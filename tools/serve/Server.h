// The server: listening sockets, the clients' connections, the hub and the beacon on one loop.
#pragma once

#include <netinet/in.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Address.h"
#include "Beacon.h"
#include "Connection.h"
#include "Hub.h"
#include "Loop.h"
#include "SlcanLine.h"
#include "SocketCanLink.h"

namespace vexlo_serve {

struct XServeOptions {
    XHubOptions hub;
    std::vector<std::string> listen;                       // ADDR:PORT each
    std::vector<std::string> bus_names{"can0", "can1"};
    std::vector<XCidr> allow;                              // empty: everyone
    unsigned max_clients = 32;
    bool beacon_to = false;                                // --beacon: beacon_target
    sockaddr_in beacon_target{};
    bool beacon_off = false;
    std::vector<std::pair<std::string, unsigned>> slcan, slcan_tcp;  // serial lines: LINK or ADDR:PORT, bus
    std::vector<std::pair<std::string, unsigned>> socketcan;         // CAN interfaces: IFACE, bus
};

class XServer {
public:
    explicit XServer(const XServeOptions& options) : options_(options), hub_(&loop_, options.hub) {}
    ~XServer();
    // Runs until SIGINT or SIGTERM: the exit status (0, or 1 when it could not start).
    int Run();

private:
    bool Listen(const std::string& where);
    void Accept(int listener);

    XServeOptions options_;
    XLoop loop_;
    XHub hub_;
    XBeacon beacon_;
    std::vector<int> listeners_;
    std::vector<sockaddr_in> beacon_addrs_;
    std::unordered_map<XConnection*, std::unique_ptr<XConnection>> conns_;
    std::vector<XConnection*> ended_;  // freed once the handler that ended them has returned
    XTimer reap_;
    size_t live_ = 0;  // connections not yet ended
    int signals_ = -1;
    XTimer resume_accept_;
    std::vector<std::unique_ptr<XSlcanPty>> slcan_ptys_;
    std::vector<std::unique_ptr<XSlcanTcp>> slcan_ports_;
    std::vector<std::unique_ptr<XSocketCanLink>> can_links_;
};

}  // namespace vexlo_serve
