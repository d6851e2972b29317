// Fuzz target of a whole socketcand connection: the server's connection, its modes, jobs and
// timers on the real event loop, over a socket pair, with a stand-in hub whose answers and frames
// the input decides. The input is a script of steps in any order: bytes from the client, rounds
// of the loop, jumps of the clock to the next timer, reads by the client, its half and full
// close, frames of the bus, refused frames, a full transmit queue and its room again, and the
// adapter's unplug. At the end the client goes and the clock runs. Checked: the client gets only
// whole "< ... >" messages (the last may be cut off by the end); the connection ends once its
// client has gone; and once it has ended it is no member of the hub and no timer or watched
// descriptor of it is left.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Connection.h"

using namespace vexlo_serve;

namespace {

// The hub as Hub.h's contract has it, for one client and without an adapter.
struct XStandInHub : XHubAccess {
    XHubClient* member = nullptr;
    unsigned bus = 0;
    bool full = false, owed = false, gone = false;
    XBusCounters counters_[2];
    CAN_INIT config_[2] = {};

    bool Join(XHubClient* c, unsigned b) override { return !gone && !member && b < 2 && (member = c, bus = b, true); }
    void Leave(XHubClient* c) override { member = c == member ? nullptr : member; }
    void Release(XHubClient* c) override { Leave(c); }
    SendResult Send(XHubClient* c, const CAN_OBJ&) override {
        if (c != member) return kNotJoined;
        if (config_[bus].ListenOnly) return kListenOnly;
        owed |= full;
        return full ? kFull : (++counters_[bus].tx_frames, kQueued);
    }
    const XBusCounters& counters(unsigned b) const override { return counters_[b]; }
    const CAN_INIT& Config(unsigned b) const override { return config_[b]; }
    bool Configure(XHubClient* c, unsigned b, const CAN_INIT& init) override {
        return !gone && !Busy(c, b) && (config_[b] = init, true);
    }
    bool Busy(const XHubClient* c, unsigned) const override { return member && member != c; }
    bool present() const override { return !gone; }
    bool listen_only() const override { return false; }
};

void Drain(int fd, std::string* out) {
    char buf[65536];
    ssize_t n;
    while (fd >= 0 && (n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0) out->append(buf, static_cast<size_t>(n));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) return 0;
    // Small buffers: a client that reads slowly fills them within a few messages.
    int small = 4096, client = fds[1];
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    setsockopt(client, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    std::string received;
    {
        XLoop loop;
        XStandInHub hub;
        std::vector<std::string> names{"can0", "can1"};
        bool ended = false;
        auto conn = std::make_unique<XConnection>(&loop, &hub, &names, fds[0], "fuzz", [&](XConnection*) { ended = true; });
        conn->Begin();
        size_t at = 0;
        auto next = [&] { return at < size ? data[at++] : uint8_t{0}; };
        // Freed after the handler that ended it, as the server does; nothing of it stays.
        auto reap = [&] {
            if (!ended || !conn) return;
            conn.reset();
            if (hub.member || loop.timers() || loop.watched()) abort();
        };
        while (at < size) {
            uint8_t op = next();
            if (op % 10 == 0) {  // the client writes
                char text[256];
                size_t n = next();
                for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>(next());
                if (client >= 0 && n) (void)!send(client, text, n, MSG_DONTWAIT | MSG_NOSIGNAL);
            } else if (op % 10 == 1) {
                loop.RunOnce(0);
            } else if (op % 10 == 2) {
                loop.RunEarliest();
            } else if (op % 10 == 3) {
                Drain(client, &received);
            } else if (op % 10 == 4 && client >= 0) {
                shutdown(client, SHUT_WR);
            } else if (op % 10 == 5 && client >= 0 && next() & 1) {  // what it has not read is lost
                Drain(client, &received);
                close(client);
                client = -1;
            } else if (op % 10 == 6 && hub.member) {  // a frame of the bus; length 15: an error frame
                VEXLO_FRAME f = {};
                uint8_t b = next();
                f.frame.Id = (b & 0x3F) | (b & 0x40 ? 0x12345600u : 0u);
                f.frame.ExtendedFrame = b >> 6 & 1;
                f.frame.RemoteFrame = b >> 7;
                f.frame.DataLength = next() & 0x0F;
                for (unsigned char& d : f.frame.Data) d = next();
                f.flags = f.frame.DataLength == 15 ? VEXLO_FRAME_ERROR : 0;
                f.host_us = 1700000000000000ull + at;
                hub.member->OnFrames(&f, 1);
            } else if (op % 10 == 7 && hub.member) {
                hub.member->OnRefused(CAN_OBJ{});
            } else if (op % 10 == 8) {  // the transmit queue fills, or has room again
                hub.full = next() & 1;
                if (!hub.full && hub.owed && hub.member) hub.owed = false, hub.member->OnRoom();
            } else if (op % 10 == 9 && next() == 0x5A && !hub.gone) {
                hub.gone = true;
                XHubClient* c = hub.member;
                hub.member = nullptr;
                if (c) c->OnGone();
            }
            reap();
        }
        // The end: the client reads what came and goes, the hub has room, the clock runs.
        Drain(client, &received);
        if (client >= 0) close(client);
        hub.full = false;
        if (hub.owed && hub.member) hub.member->OnRoom();
        for (int round = 0; round < 64 && conn; ++round, reap()) loop.RunOnce(0), loop.RunEarliest();
        if (conn) abort();  // it outlives its client
    }
    // Whole messages: every byte lies within "< ... >", and '<' only starts one. A connection cut
    // off in the middle of its output may end within one.
    bool inside = false;
    for (char ch : received) {
        if ((ch == '<') == inside || (!inside && ch != '<')) abort();
        inside = ch == '<' || (inside && ch != '>');
    }
    return 0;
}
