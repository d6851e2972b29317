#include "Beacon.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vexlo_serve {

namespace {

const uint64_t kPeriodUs = 2000000;

std::string Escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string Ip(uint32_t addr) {
    char text[INET_ADDRSTRLEN] = "";
    in_addr a;
    a.s_addr = addr;
    inet_ntop(AF_INET, &a, text, sizeof(text));
    return text;
}

}  // namespace

std::string BeaconText(const std::string& host, const std::string& description, const std::string& addr,
                       unsigned port, const std::vector<std::string>& buses) {
    std::string t = "<CANBeacon name=\"" + Escape(host) + "\" type=\"adapter\" description=\"" + Escape(description) +
                    "\"><URL>can://" + addr + ":" + std::to_string(port) + "</URL>";
    for (const std::string& b : buses) t += "<Bus name=\"" + Escape(b) + "\"/>";
    return t + "</CANBeacon>";
}

bool XBeacon::Start(XLoop* loop, const std::vector<sockaddr_in>& listening, const sockaddr_in* target,
                    const std::vector<std::string>& buses, const std::string& description) {
    loop_ = loop;
    listening_ = listening;
    has_target_ = target != nullptr;
    if (target) target_ = *target;
    buses_ = buses;
    description_ = description;
    char name[256] = "vexlo";
    if (gethostname(name, sizeof(name) - 1) != 0) std::strcpy(name, "vexlo");
    host_ = name;
    sock_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (sock_ < 0) return false;
    int on = 1;
    setsockopt(sock_, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    Tick();
    return true;
}

void XBeacon::Stop() {
    timer_.Cancel();
    if (sock_ >= 0) close(sock_);
    sock_ = -1;
}

void XBeacon::SendTo(const sockaddr_in& to, uint32_t local, unsigned port) {
    std::string text = BeaconText(host_, description_, Ip(local), port, buses_);
    if (sendto(sock_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0 &&
        !complained_) {
        complained_ = true;
        std::fprintf(stderr, "vexlo: cannot send the beacon to %s: %s\n", Ip(to.sin_addr.s_addr).c_str(),
                     std::strerror(errno));
    }
}

void XBeacon::Tick() {
    timer_.At(loop_, MonoUs() + kPeriodUs, [this] { Tick(); });
    for (const sockaddr_in& l : listening_) {
        unsigned port = ntohs(l.sin_port);
        if (has_target_) {
            uint32_t local = l.sin_addr.s_addr;
            if (local == htonl(INADDR_ANY)) {
                // The address the kernel would send from to reach the target.
                int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
                sockaddr_in me{};
                socklen_t len = sizeof(me);
                if (probe >= 0 && connect(probe, reinterpret_cast<const sockaddr*>(&target_), sizeof(target_)) == 0 &&
                    getsockname(probe, reinterpret_cast<sockaddr*>(&me), &len) == 0)
                    local = me.sin_addr.s_addr;
                if (probe >= 0) close(probe);
            }
            SendTo(target_, local, port);
            continue;
        }
        ifaddrs* list = nullptr;
        if (getifaddrs(&list) != 0) continue;
        for (ifaddrs* i = list; i; i = i->ifa_next) {
            if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET || !(i->ifa_flags & IFF_UP) ||
                !(i->ifa_flags & IFF_BROADCAST) || (i->ifa_flags & IFF_LOOPBACK) || !i->ifa_broadaddr)
                continue;
            uint32_t addr = reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr;
            if (l.sin_addr.s_addr != htonl(INADDR_ANY) && l.sin_addr.s_addr != addr) continue;
            sockaddr_in to = *reinterpret_cast<const sockaddr_in*>(i->ifa_broadaddr);
            to.sin_port = htons(kBeaconPort);
            SendTo(to, addr, port);
        }
        freeifaddrs(list);
    }
}

}  // namespace vexlo_serve
