#include "CanFilter.h"

#include <cstdlib>

namespace vexlo_tool {

uint32_t FrameKey(const CAN_OBJ& frame) {
    uint32_t key = frame.Id & (frame.ExtendedFrame ? 0x1FFFFFFFu : 0x7FFu);
    if (frame.ExtendedFrame) key |= kEffFlag;
    if (frame.RemoteFrame) key |= kRtrFlag;
    return key;
}

bool ParseFilter(const std::string& text, CanFilter* filter, std::string* error) {
    size_t sep = text.find_first_of(":~");
    if (sep == std::string::npos) {
        *error = "filter needs ID:MASK or ID~MASK";
        return false;
    }
    std::string id = text.substr(0, sep), mask = text.substr(sep + 1);
    auto hex = [](const std::string& s, uint32_t* v) {
        if (s.empty() || s.size() > 8 || s.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            return false;
        *v = static_cast<uint32_t>(std::strtoul(s.c_str(), nullptr, 16));
        return true;
    };
    CanFilter f;
    if (!hex(id, &f.id) || !hex(mask, &f.mask)) {
        *error = "filter identifier and mask must be hex, at most 8 digits";
        return false;
    }
    if (id.size() == 8) f.id |= kEffFlag;
    f.inverse = text[sep] == '~';
    *filter = f;
    return true;
}

bool ParseChannelList(const std::string& text, std::vector<ChannelFilters>* out, std::string* error) {
    out->clear();
    ChannelFilters* last = nullptr;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        start = comma == std::string::npos ? text.size() + 1 : comma + 1;
        size_t seps = 0;
        for (char c : item) seps += c == ':' || c == '~';
        std::string name = item.substr(0, seps == 2 ? item.find(':') : std::string::npos);
        if (seps == 1) {
            CanFilter f;
            if (!last) {
                *error = "filter '" + item + "' before any channel";
                return false;
            }
            if (!ParseFilter(item, &f, error)) return false;
            last->filters.push_back(f);
            continue;
        }
        if (name.compare(0, 3, "can") == 0) name = name.substr(3);
        if (seps > 2 || (name != "0" && name != "1")) {
            *error = "bad channel '" + item + "' (0 or 1, then optional filters ID:MASK or ID~MASK)";
            return false;
        }
        unsigned ch = static_cast<unsigned>(name[0] - '0');
        last = nullptr;
        for (ChannelFilters& c : *out)
            if (c.channel == ch) last = &c;
        if (!last) {
            out->push_back(ChannelFilters());
            last = &out->back();
            last->channel = ch;
        }
        if (seps == 2) {
            CanFilter f;
            if (!ParseFilter(item.substr(item.find(':') + 1), &f, error)) return false;
            last->filters.push_back(f);
        }
    }
    return true;
}

bool FilterPasses(const std::vector<CanFilter>& filters, const CAN_OBJ& frame) {
    if (filters.empty()) return true;
    uint32_t key = FrameKey(frame);
    for (const CanFilter& f : filters) {
        bool match = (key & f.mask) == (f.id & f.mask);
        if (match != f.inverse) return true;
    }
    return false;
}

namespace {

const uint32_t kIdBits = 0x1FFFFFFFu;

bool PassesAll(const CanFilter& f) { return !f.inverse && (f.mask & (kEffFlag | kRtrFlag | kIdBits)) == 0; }
// Selects one frame type only: the mask holds the extended flag.
bool StandardOnly(const CanFilter& f) { return !f.inverse && (f.mask & kEffFlag) && !(f.id & kEffFlag); }
bool ExtendedOnly(const CanFilter& f) { return !f.inverse && (f.mask & kEffFlag) && (f.id & kEffFlag); }

// The twelve bits a standard frame shows a filter: ID.10-ID.0 then RTR, and which of them count.
uint32_t StdImage(uint32_t v) { return ((v & 0x7FF) << 1) | ((v & kRtrFlag) ? 1 : 0); }

}  // namespace

bool FitAcceptance(const std::vector<CanFilter>& filters, AcceptanceFilter* out) {
    *out = AcceptanceFilter();
    if (filters.empty()) return true;
    for (const CanFilter& f : filters)
        if (PassesAll(f)) return true;
    bool all_std = true, all_ext = true;
    for (const CanFilter& f : filters) {
        all_std = all_std && StandardOnly(f);
        all_ext = all_ext && ExtendedOnly(f);
    }
    if (all_std && filters.size() <= 2) {
        // Single: ID and RTR in bits 31-20. Dual: filter 1 in bits 31-20, filter 2 in bits 15-4.
        const CanFilter& a = filters[0];
        const CanFilter& b = filters.size() == 2 ? filters[1] : filters[0];
        uint32_t code = (StdImage(a.id) << 20) | (StdImage(b.id) << 4);
        uint32_t care = (StdImage(a.mask) << 20) | (StdImage(b.mask) << 4);
        out->single = filters.size() == 1;
        if (out->single) {
            code &= 0xFFF00000u;
            care &= 0xFFF00000u;
        }
        out->code = code & care;
        out->mask = ~care;
        return true;
    }
    if (all_ext && filters.size() == 1) {
        const CanFilter& a = filters[0];
        uint32_t care = ((a.mask & kIdBits) << 3) | ((a.mask & kRtrFlag) ? 4u : 0u);
        uint32_t code = ((a.id & kIdBits) << 3) | ((a.id & kRtrFlag) ? 4u : 0u);
        out->single = true;
        out->code = code & care;
        out->mask = ~care;
        return true;
    }
    if (all_ext && filters.size() == 2) {
        // Dual mode compares ID.28-ID.13 only: exact when the filters ignore the rest.
        for (const CanFilter& f : filters)
            if (f.mask & (0x1FFFu | kRtrFlag)) return false;
        uint32_t care = ((filters[0].mask & kIdBits) >> 13 << 16) | ((filters[1].mask & kIdBits) >> 13);
        uint32_t code = ((filters[0].id & kIdBits) >> 13 << 16) | ((filters[1].id & kIdBits) >> 13);
        out->code = code & care;
        out->mask = ~care;
        return true;
    }
    return false;
}

}  // namespace vexlo_tool
