// vexlo gen: generated frames, as cangen makes them.
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "Adapter.h"
#include "Commands.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo gen [OPTIONS] CH\n"
    "\n"
    "Sends generated frames on channel CH (0 or 1) until Ctrl-C or COUNT frames; a rate line goes\n"
    "to standard error every second.\n"
    "\n"
    "options:\n"
    "  -g MS           gap between frames in milliseconds (default 200; 0: as fast as possible)\n"
    "  -I i|r|HEX      identifier: increasing, random or fixed (default r)\n"
    "  -L i|r|N        data length: increasing, random or fixed (default r)\n"
    "  -D i|r|HEX      data: increasing counter, random or fixed bytes (default r)\n"
    "  -e              extended identifiers\n"
    "  -R              remote frames\n"
    "  -n COUNT        stop after COUNT frames\n"
    "  -h, --help      this text\n"
    "  --version       the version\n"
    "common options:\n";

struct GenMode {
    char kind = 'r';  // 'i', 'r' or 'f' (fixed)
    unsigned long long value = 0;
    unsigned char bytes[8] = {};
    unsigned nbytes = 0;
};

bool ParseMode(const std::string& v, bool data, unsigned long long limit, GenMode* m) {
    if (v == "i" || v == "r") {
        m->kind = v[0];
        return true;
    }
    m->kind = 'f';
    if (data) {
        if (v.size() % 2 || v.size() > 16 || v.empty() || v.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            return false;
        m->nbytes = static_cast<unsigned>(v.size() / 2);
        for (unsigned i = 0; i < m->nbytes; ++i)
            m->bytes[i] = static_cast<unsigned char>(std::strtoul(v.substr(2 * i, 2).c_str(), nullptr, 16));
        return true;
    }
    char* end = nullptr;
    m->value = std::strtoull(v.c_str(), &end, limit == 8 ? 10 : 16);
    return !v.empty() && !*end && m->value <= limit;
}

}  // namespace

int RunGen(int argc, char** argv) {
    CommonOptions common;
    GenMode id, len, data;
    double gap_ms = 200;
    bool ext = false, rtr = false;
    unsigned long long count = 0;
    std::string channel;
    XArgs args(argc, argv);
    while (!args.Done()) {
        std::string opt = args.Option(), v;
        if (opt.empty()) {
            if (!TakeOneOperand(&args, &channel, "gen", "channel")) return kExitUsage;
            continue;
        }
        int shared = TakeSharedOption(opt, &args, &common, kUsage);
        if (shared == kOptionTaken) continue;
        if (shared != kOptionOwn) return shared;
        if (opt == "-e") {
            ext = true;
            continue;
        }
        if (opt == "-R") {
            rtr = true;
            continue;
        }
        if (opt != "-g" && opt != "-I" && opt != "-L" && opt != "-D" && opt != "-n") {
            Complain("gen: unknown option '%s'", opt.c_str());
            return kExitUsage;
        }
        if (!args.Value(opt, &v)) return kExitUsage;
        char* end = nullptr;
        bool ok = true;
        if (opt == "-g") {
            gap_ms = std::strtod(v.c_str(), &end);
            ok = !v.empty() && !*end && gap_ms >= 0;
        } else if (opt == "-n") {
            count = std::strtoull(v.c_str(), &end, 10);
            ok = !v.empty() && !*end && count > 0;
        } else if (opt == "-I") {
            ok = ParseMode(v, false, 0x1FFFFFFF, &id);
        } else if (opt == "-L") {
            ok = ParseMode(v, false, 8, &len);
        } else {
            ok = ParseMode(v, true, 0, &data);
        }
        if (!ok) {
            Complain("bad value '%s' for %s", v.c_str(), opt.c_str());
            return kExitUsage;
        }
    }
    unsigned ch = 0;
    if (channel.empty()) {
        Complain("gen needs a channel: 0 or 1");
        return kExitUsage;
    }
    if (!ParseChannel(channel, &ch)) return kExitUsage;
    if (id.kind == 'f' && !ext && id.value > 0x7FF) {
        Complain("identifier %llX needs -e", id.value);
        return kExitUsage;
    }
    XAdapter adapter(common);
    int status = adapter.Open();
    if (status != kExitOk) return status;
    if (!adapter.Start(ch)) return kExitFail;

    std::mt19937 rng(static_cast<unsigned>(MonoUs()));
    const unsigned id_limit = ext ? 0x1FFFFFFF : 0x7FF;
    unsigned long long seq = 0, sent = 0, sent_before = 0;
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
        unsigned took = VCI_Transmit(kDevType, common.dev, ch, batch, static_cast<unsigned>(want));
        if (took > want) took = 0;
        // What the adapter refused is generated again: the sequence goes on from what it took.
        seq += took;
        sent += took;
        uint64_t now = MonoUs();
        if (now >= next_rate) {
            std::fprintf(stderr, "vexlo gen: can%u: %llu frames/s, %llu sent\n", ch,
                         (sent - sent_before) * 1000000 / (now - next_rate + 1000000), sent);
            sent_before = sent;
            next_rate = now + 1000000;
        }
        if (took < want) {
            SleepUntil(now + 1000);  // the adapter's buffer is full: let the bus drain it
        } else if (gap_us) {
            due += gap_us;
            SleepUntil(due);
        }
    }
    std::fprintf(stderr, "vexlo gen: can%u: %llu frames sent\n", ch, sent);
    return kExitOk;
}

}  // namespace vexlo_tool
