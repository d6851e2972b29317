#include "CanFilter.h"

#include <cstdlib>

namespace vexlo_tool {

bool ParseFilter(const std::string& text, VEXLO_FILTER* filter, std::string* error) {
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
    uint32_t i = 0, m = 0;
    if (!hex(id, &i) || !hex(mask, &m)) {
        *error = "filter identifier and mask must be hex, at most 8 digits";
        return false;
    }
    if (id.size() == 8) i |= kEffFlag;
    VEXLO_FILTER f = {};
    f.id = i & 0x1FFFFFFFu;
    f.mask = m & 0x1FFFFFFFu;
    f.extended = static_cast<signed char>((m & kEffFlag) ? (i & kEffFlag) != 0 : -1);
    f.remote = static_cast<signed char>((m & kRtrFlag) ? (i & kRtrFlag) != 0 : -1);
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
            VEXLO_FILTER f;
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
            VEXLO_FILTER f;
            if (!ParseFilter(item.substr(item.find(':') + 1), &f, error)) return false;
            last->filters.push_back(f);
        }
    }
    return true;
}

}  // namespace vexlo_tool
