#include "CanNumber.h"

#include <cstdio>
#include <cstdlib>

namespace vexlo_tool {
namespace {

// A bound as a person writes it: "2592000", "0.1", never "2.592e+06".
std::string BoundText(double v) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.6f", v);
    std::string s = text;
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.') s.pop_back();
    return s;
}

}  // namespace

bool ParseBounded(const std::string& text, double min, double max, bool whole, double* value, std::string* error) {
    *error = std::string(whole ? "a whole number" : "a number") + " from " + BoundText(min) + " to " + BoundText(max);
    size_t digits = 0, dots = 0;
    for (char c : text) {
        if (c >= '0' && c <= '9') ++digits;
        else if (c == '.' && !whole) ++dots;
        else return false;
    }
    if (digits == 0 || dots > 1) return false;
    double v = std::strtod(text.c_str(), nullptr);
    if (!(v >= min && v <= max)) return false;
    *value = v;
    return true;
}

}  // namespace vexlo_tool
