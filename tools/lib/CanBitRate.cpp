#include "CanBitRate.h"

#include <cctype>
#include <cmath>
#include <cstdlib>

#include "CanNumber.h"

namespace vexlo_tool {

bool ParseBitRate(const std::string& text, unsigned* rate) {
    double scale = 1;
    std::string number = text;
    if (!number.empty() && (number.back() == 'k' || number.back() == 'K')) scale = 1e3;
    if (!number.empty() && (number.back() == 'M' || number.back() == 'm')) scale = 1e6;
    if (scale > 1) number.pop_back();
    double v = 0;
    std::string range;
    if (!ParseBounded(number, 0, 1e8 / scale, false, &v, &range) || std::lround(v * scale) < 1) return false;
    *rate = static_cast<unsigned>(std::lround(v * scale));
    return true;
}

bool ParseTimingBytes(const std::string& text, unsigned char* btr0, unsigned char* btr1) {
    if (text.size() != 5 || text[2] != ':') return false;
    for (size_t i : {0, 1, 3, 4})
        if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    *btr0 = static_cast<unsigned char>(std::strtoul(text.substr(0, 2).c_str(), nullptr, 16));
    *btr1 = static_cast<unsigned char>(std::strtoul(text.substr(3, 2).c_str(), nullptr, 16));
    return true;
}

}  // namespace vexlo_tool
