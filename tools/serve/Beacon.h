// Discovery: the server announces itself over UDP as socketcand clients expect.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Loop.h"

namespace vexlo_serve {

const unsigned kBeaconPort = 42000;

// The announcement text:
//   <CANBeacon name="HOST" type="adapter" description="TEXT"><URL>can://ADDR:PORT</URL>
//   <Bus name="can0"/><Bus name="can1"/></CANBeacon>   (on one line)
// with &, <, > and " of the names written as entities. Pure.
std::string BeaconText(const std::string& host, const std::string& description, const std::string& addr,
                       unsigned port, const std::vector<std::string>& buses);

// Every 2 s, for each IPv4 listening address: to `target` when one is given (the URL then names
// the local address that reaches it, when the server listens on any address), otherwise as a
// broadcast on each network the server listens on (every one with a broadcast address for
// 0.0.0.0). Loopback networks have no broadcast address: a server on 127.0.0.1 alone sends none.
class XBeacon {
public:
    ~XBeacon() { Stop(); }
    bool Start(XLoop* loop, const std::vector<sockaddr_in>& listening, const sockaddr_in* target,
               const std::vector<std::string>& buses, const std::string& description);
    void Stop();

private:
    void Tick();
    void SendTo(const sockaddr_in& to, uint32_t local, unsigned port);

    XLoop* loop_ = nullptr;
    int sock_ = -1;
    XTimer timer_;
    std::vector<sockaddr_in> listening_;
    bool has_target_ = false;
    sockaddr_in target_{};
    std::vector<std::string> buses_;
    std::string description_;
    std::string host_;
    bool complained_ = false;
};

}  // namespace vexlo_serve
