#include "CanExtcap.h"

namespace vexlo_tool {

std::string ExtcapInterfaceName(unsigned adapter, unsigned channel) {
    return "vexlo" + std::to_string(adapter) + "can" + std::to_string(channel);
}

bool ParseExtcapInterface(const std::string& name, unsigned* adapter, unsigned* channel) {
    const std::string head = "vexlo";
    size_t can = name.find("can", head.size());
    if (name.compare(0, head.size(), head) != 0 || can == std::string::npos) return false;
    std::string a = name.substr(head.size(), can - head.size()), c = name.substr(can + 3);
    if (a.empty() || a.size() > 2 || a.find_first_not_of("0123456789") != std::string::npos) return false;
    if ((a.size() == 2 && a[0] == '0') || (c != "0" && c != "1")) return false;
    unsigned n = static_cast<unsigned>(std::stoul(a));
    if (n > 31) return false;
    *adapter = n;
    *channel = static_cast<unsigned>(c[0] - '0');
    return true;
}

bool ParseFilterList(const std::string& text, std::vector<VEXLO_FILTER>* out, std::string* error) {
    out->clear();
    const char* seps = ", \t\n";
    size_t start = text.find_first_not_of(seps);
    while (start != std::string::npos) {
        size_t end = text.find_first_of(seps, start);
        std::string item = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        VEXLO_FILTER f;
        if (!ParseFilter(item, &f, error)) {
            *error = "bad filter '" + item + "': " + *error;
            return false;
        }
        out->push_back(f);
        start = end == std::string::npos ? end : text.find_first_not_of(seps, end);
    }
    return true;
}

}  // namespace vexlo_tool
