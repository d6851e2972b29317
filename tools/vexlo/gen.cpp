// vexlo gen: generated frames, as cangen makes them.
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Adapter.h"
#include "Commands.h"
#include "Process.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo gen [OPTIONS] CH\n"
    "\n"
    "Sends generated frames on channel CH (0 or 1) until Ctrl-C or COUNT frames; a rate line goes\n"
    "to standard error every second.\n"
    "\n"
    "options:\n"
    "  -g MS           gap between frames in milliseconds, 0 to 3600000 (default 200; 0: as fast\n"
    "                  as the adapter takes them)\n"
    "  -I i|r|HEX      identifier: increasing, random or fixed (default r)\n"
    "  -L i|r|N        data length: increasing, random or fixed 0 to 8 (default r)\n"
    "  -D i|r|HEX      data: increasing counter, random or fixed bytes (default r)\n"
    "  -e              extended identifiers\n"
    "  -R              remote frames\n"
    "  -n COUNT        stop after COUNT frames (1 to 1000000000000)\n"
    "\n"
    "It ends once its last frame has left the adapter. When the adapter refuses every frame for a\n"
    "second (no other node acknowledges them) it stops; the exit status is then 1, as when\n"
    "nothing was sent.\n"
    "\n";

struct GenMode {
    char kind = 'r';  // 'i', 'r' or 'f' (fixed)
    unsigned long long value = 0;
    unsigned char bytes[8] = {};
    unsigned nbytes = 0;
};

// i, r, or a fixed value of -I (a hex identifier), -L (a length 0 to 8) or -D (hex bytes).
bool ParseMode(const char* option, const std::string& v, GenMode* m) {
    if (v == "i" || v == "r") {
        m->kind = v[0];
        return true;
    }
    m->kind = 'f';
    bool hex = !v.empty() && v.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (option[1] == 'L') {
        double len = 0;
        if (!TakeNumber(option, v.c_str(), 0, 8, true, &len)) return false;
        m->value = static_cast<unsigned long long>(len);
    } else if (option[1] == 'D') {
        if (!hex || v.size() % 2 || v.size() > 16) {
            Complain("bad value '%s' for -D: i, r or 1 to 8 bytes in hex", v.c_str());
            return false;
        }
        m->nbytes = static_cast<unsigned>(v.size() / 2);
        for (unsigned i = 0; i < m->nbytes; ++i)
            m->bytes[i] = static_cast<unsigned char>(std::strtoul(v.substr(2 * i, 2).c_str(), nullptr, 16));
    } else {
        m->value = hex && v.size() <= 8 ? std::strtoull(v.c_str(), nullptr, 16) : ~0ull;
        if (m->value > 0x1FFFFFFF) {
            Complain("bad value '%s' for -I: i, r or a hex identifier up to 1FFFFFFF", v.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

int RunGen(int argc, char** argv) {
    CommonOptions common;
    GenMode id, len, data;
    double gap_ms = 200, count_value = 0;
    bool ext = false, rtr = false;
    OwnOptions own = {"g:I:L:D:eRn:", nullptr, [&](int code, const char* v) {
                          switch (code) {
                          case 'e': ext = true; return true;
                          case 'R': rtr = true; return true;
                          case 'g': return TakeNumber("-g", v, 0, 3600000, false, &gap_ms);
                          case 'n': return TakeNumber("-n", v, 1, 1e12, true, &count_value);
                          case 'I': return ParseMode("-I", v, &id);
                          case 'L': return ParseMode("-L", v, &len);
                          default: return ParseMode("-D", v, &data);
                          }
                      }};
    std::vector<std::string> operands;
    std::string channel;
    int status = ParseCommandLine(argc, argv, kUsage, own, &common, &operands);
    if (status >= 0) return status;
    if (common.listen_only) {
        Complain("gen cannot send with --listen-only");
        return kExitUsage;
    }
    if (!OneOperand(operands, "gen", "a channel: 0 or 1", &channel)) return kExitUsage;
    const unsigned long long count = static_cast<unsigned long long>(count_value);
    unsigned ch = 0;
    if (!ParseChannel(channel, &ch)) return kExitUsage;
    if (id.kind == 'f' && !ext && id.value > 0x7FF) {
        Complain("identifier %llX needs -e", id.value);
        return kExitUsage;
    }
    XAdapter adapter(common);
    status = adapter.Open();
    if (status != kExitOk) return status;
    if (!adapter.Start(ch)) return kExitFail;

    std::mt19937 rng(static_cast<unsigned>(MonoUs()));
    const unsigned id_limit = ext ? 0x1FFFFFFF : 0x7FF;
    unsigned long long seq = 0, sent = 0, sent_before = 0, refused = 0;
    uint64_t start = MonoUs(), next_rate = start + 1000000;
    const uint64_t gap_us = static_cast<uint64_t>(gap_ms * 1000);
    uint64_t due = start;
    const size_t kBatch = 48;  // with no gap, frames go in batches the adapter can take
    CAN_OBJ batch[kBatch];
    while (!Stopping() && (count == 0 || sent < count)) {
        size_t want = gap_us ? 1 : kBatch;
        if (count && count - sent < want) want = static_cast<size_t>(count - sent);
        for (size_t k = 0; k < want; ++k) {
            CAN_OBJ& f = batch[k];
            std::memset(&f, 0, sizeof(f));
            unsigned long long n = seq + k;
            f.ExtendedFrame = ext;
            f.RemoteFrame = rtr;
            f.Id = id.kind == 'f' ? static_cast<unsigned>(id.value)
                 : id.kind == 'i' ? static_cast<unsigned>(n & id_limit) : rng() & id_limit;
            unsigned l = len.kind == 'f' ? static_cast<unsigned>(len.value)
                       : len.kind == 'i' ? static_cast<unsigned>(n % 9) : rng() % 9;
            if (data.kind == 'f' && len.kind == 'r') l = data.nbytes;
            f.DataLength = static_cast<unsigned char>(l);
            for (unsigned b = 0; b < 8; ++b) {
                f.Data[b] = data.kind == 'f' ? data.bytes[b]
                          : data.kind == 'i' ? static_cast<unsigned char>(n >> (8 * b)) : static_cast<unsigned char>(rng());
            }
        }
        // What the adapter refused is offered again: the sequence goes on from what it took.
        unsigned took = 0;
        if (!adapter.Offer(ch, batch, static_cast<unsigned>(want), &took)) {
            // Refused for a second: what this offer held, or with -n every frame still to go.
            if (!Stopping() && !adapter.gone()) refused = count ? count - sent : want;
            break;
        }
        seq += took;
        sent += took;
        uint64_t now = MonoUs();
        if (now >= next_rate) {
            unsigned long long rate = (sent - sent_before) * 1000000 / (now - next_rate + 1000000);
            Say("vexlo gen: can%u: %llu frames/s, %llu sent", ch, rate, sent);
            sent_before = sent;
            next_rate = now + 1000000;
        }
        if (took == want && gap_us && !adapter.Pause(due += gap_us)) break;
    }
    // The last frames are waited for: they leave the adapter before it is reset.
    bool left = refused == 0 && !adapter.gone() && adapter.WaitSent(ch);
    if (!left && refused == 0 && adapter.Present())
        Complain("frames on channel %u did not leave the adapter within a second %s", ch, kAckHint);
    if (refused) Say("vexlo gen: can%u: %llu frames sent, %llu refused", ch, sent, refused);
    else Say("vexlo gen: can%u: %llu frames sent", ch, sent);
    return left && sent > 0 ? kExitOk : kExitFail;
}

}  // namespace vexlo_tool
