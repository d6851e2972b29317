// Addresses of the server: where it listens, whom it lets in. Pure.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <vector>

namespace vexlo_serve {

// "ADDR:PORT" with ADDR an IPv4 address, "[IPv6]" or a host name, PORT 1 to 65535 (default_port
// when ":PORT" is left out and default_port is not 0). False with the reason in *error.
// Example: "0.0.0.0:29536", "[::1]:29536", "localhost:29537".
bool ParseHostPort(const std::string& text, unsigned default_port, std::string* host, unsigned* port,
                   std::string* error);

// A network in CIDR form: "192.168.1.0/24", "10.1.2.3" (one address), "fe80::/10".
struct XCidr {
    int family = AF_INET;
    unsigned char addr[16] = {0};
    unsigned bits = 0;
};
// Parses a comma-separated list. False with the bad item named in *error.
bool ParseCidrList(const std::string& text, std::vector<XCidr>* out, std::string* error);
// True when the address (IPv4, IPv6 or IPv4 mapped into IPv6) lies in one of the networks; an
// IPv4 address and its mapped form (::ffff:10.1.2.3) are the same address, in a peer as in a
// network.
bool CidrMatch(const std::vector<XCidr>& list, const sockaddr_storage& peer);

// "1.2.3.4:5678" or "[::1]:5678".
std::string PeerText(const sockaddr_storage& peer);

}  // namespace vexlo_serve
