#include "Address.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

namespace vexlo_serve {

bool ParseHostPort(const std::string& text, unsigned default_port, std::string* host, unsigned* port,
                   std::string* error) {
    std::string h, p;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':')) {
            *error = "bad address '" + text + "' ([IPv6]:PORT)";
            return false;
        }
        h = text.substr(1, close - 1);
        if (close + 1 < text.size()) p = text.substr(close + 2);
    } else {
        size_t colon = text.rfind(':');
        if (colon != std::string::npos && text.find(':') != colon) {
            *error = "bad address '" + text + "' (write an IPv6 address in brackets)";
            return false;
        }
        h = text.substr(0, colon);
        if (colon != std::string::npos) p = text.substr(colon + 1);
        else if (!default_port) p = "";
    }
    if (h.empty()) {
        *error = "bad address '" + text + "' (no host)";
        return false;
    }
    unsigned long v = default_port;
    if (!p.empty() || !default_port) {
        char* end = nullptr;
        v = p.empty() ? 0 : std::strtoul(p.c_str(), &end, 10);
        if (p.empty() || *end || v == 0 || v > 65535 || p[0] == '-' || p[0] == '+') {
            *error = "bad port in '" + text + "' (1 to 65535)";
            return false;
        }
    }
    *host = h;
    *port = static_cast<unsigned>(v);
    return true;
}

bool ParseCidrList(const std::string& text, std::vector<XCidr>* out, std::string* error) {
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        start = comma == std::string::npos ? text.size() + 1 : comma + 1;
        XCidr c;
        size_t slash = item.find('/');
        std::string a = item.substr(0, slash);
        if (inet_pton(AF_INET, a.c_str(), c.addr) == 1) c.family = AF_INET;
        else if (inet_pton(AF_INET6, a.c_str(), c.addr) == 1) c.family = AF_INET6;
        else {
            *error = "bad network '" + item + "' (ADDRESS[/BITS])";
            return false;
        }
        unsigned max = c.family == AF_INET ? 32 : 128;
        c.bits = max;
        if (slash != std::string::npos) {
            std::string b = item.substr(slash + 1);
            char* end = nullptr;
            unsigned long bits = std::strtoul(b.c_str(), &end, 10);
            if (b.empty() || *end || b[0] == '-' || b[0] == '+' || bits > max) {
                *error = "bad network '" + item + "' (prefix length 0 to " + std::to_string(max) + ")";
                return false;
            }
            c.bits = static_cast<unsigned>(bits);
        }
        out->push_back(c);
    }
    return true;
}

static bool PrefixEqual(const unsigned char* a, const unsigned char* b, unsigned bits) {
    unsigned whole = bits / 8;
    if (std::memcmp(a, b, whole) != 0) return false;
    unsigned rest = bits % 8;
    if (!rest) return true;
    unsigned char mask = static_cast<unsigned char>(0xFF << (8 - rest));
    return (a[whole] & mask) == (b[whole] & mask);
}

bool CidrMatch(const std::vector<XCidr>& list, const sockaddr_storage& peer) {
    // Everything is compared as IPv6, IPv4 as mapped into it (::ffff:a.b.c.d), so an IPv4 network
    // admits its mapped peers and a mapped network its IPv4 peers.
    static const unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    unsigned char a[16];
    if (peer.ss_family == AF_INET) {
        std::memcpy(a, kMapped, 12);
        std::memcpy(a + 12, &reinterpret_cast<const sockaddr_in*>(&peer)->sin_addr, 4);
    } else if (peer.ss_family == AF_INET6) {
        std::memcpy(a, &reinterpret_cast<const sockaddr_in6*>(&peer)->sin6_addr, 16);
    } else {
        return false;
    }
    for (const XCidr& c : list) {
        unsigned char net[16];
        unsigned bits = c.bits;
        if (c.family == AF_INET) {
            std::memcpy(net, kMapped, 12);
            std::memcpy(net + 12, c.addr, 4);
            bits += 96;
        } else {
            std::memcpy(net, c.addr, 16);
        }
        if (PrefixEqual(a, net, bits)) return true;
    }
    return false;
}

std::string PeerText(const sockaddr_storage& peer) {
    char host[INET6_ADDRSTRLEN] = "?";
    unsigned port = 0;
    if (peer.ss_family == AF_INET) {
        const sockaddr_in* s = reinterpret_cast<const sockaddr_in*>(&peer);
        inet_ntop(AF_INET, &s->sin_addr, host, sizeof(host));
        port = ntohs(s->sin_port);
        return std::string(host) + ":" + std::to_string(port);
    }
    const sockaddr_in6* s = reinterpret_cast<const sockaddr_in6*>(&peer);
    inet_ntop(AF_INET6, &s->sin6_addr, host, sizeof(host));
    port = ntohs(s->sin6_port);
    return "[" + std::string(host) + "]:" + std::to_string(port);
}

}  // namespace vexlo_serve
