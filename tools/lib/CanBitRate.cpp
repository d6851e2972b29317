#include "CanBitRate.h"

#include <cmath>
#include <cctype>
#include <cstdlib>

namespace vexlo_tool {
namespace {

// The controller counts quanta of 2 x (prescaler + 1) clock periods: 8 MHz / (prescaler + 1).
const double kQuantumClock = 8e6;
const unsigned kMinQuanta = 8;   // 1 sync + at least 5 + 2: the usual pairs' shortest bit
const unsigned kMaxQuanta = 25;  // 1 sync + 16 + 8

struct CommonRate {
    unsigned rate;
    unsigned char btr0, btr1;
};
const CommonRate kCommon[] = {{1000000, 0x00, 0x14}, {800000, 0x00, 0x16}, {500000, 0x00, 0x1C},
                              {250000, 0x01, 0x1C},  {125000, 0x03, 0x1C}, {100000, 0x04, 0x1C},
                              {50000, 0x09, 0x1C},   {20000, 0x18, 0x1C},  {10000, 0x31, 0x1C}};

}  // namespace

bool ParseBitRate(const std::string& text, unsigned* rate) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    std::string suffix = end;
    if (suffix == "k" || suffix == "K") v *= 1e3;
    else if (suffix == "M" || suffix == "m") v *= 1e6;
    else if (!suffix.empty()) return false;
    if (!(v >= 1) || v > 1e8) return false;
    *rate = static_cast<unsigned>(std::lround(v));
    return true;
}

bool TimingForRate(unsigned rate, unsigned char* btr0, unsigned char* btr1, std::string* error) {
    for (const CommonRate& c : kCommon) {
        if (c.rate == rate) {
            *btr0 = c.btr0;
            *btr1 = c.btr1;
            return true;
        }
    }
    // Every reachable rate is 8 MHz / (prescaler x quanta); find the nearest, and the nearest
    // below and above for the message.
    double best = -1, below = 0, above = 0;
    unsigned best_brp = 0, best_nq = 0;
    for (unsigned nq = kMaxQuanta; nq >= kMinQuanta; --nq) {
        for (unsigned brp = 1; brp <= 64; ++brp) {
            double r = kQuantumClock / (brp * nq);
            double err = std::fabs(r - rate) / rate;
            if (best < 0 || err < best - 1e-12) {
                best = err;
                best_brp = brp;
                best_nq = nq;
            }
            if (r <= rate && r > below) below = r;
            if (r >= rate && (above == 0 || r < above)) above = r;
        }
    }
    if (best > 0.01) {
        std::string near;
        if (below > 0) near = std::to_string(std::lround(below));
        if (above > 0) near += (near.empty() ? "" : ", ") + std::to_string(std::lround(above));
        *error = "bit rate " + std::to_string(rate) + " cannot be reached within 1% at 16 MHz; nearest rates: " + near;
        return false;
    }
    // Sample point near 80%: time segment 2 takes a fifth of the bit, time segment 1 the rest.
    unsigned tseg2 = static_cast<unsigned>(std::lround(best_nq * 0.2));
    if (tseg2 < 2) tseg2 = 2;
    unsigned tseg1 = best_nq - 1 - tseg2;
    if (tseg1 > 16) {
        tseg1 = 16;
        tseg2 = best_nq - 1 - tseg1;
    }
    *btr0 = static_cast<unsigned char>(best_brp - 1);
    *btr1 = static_cast<unsigned char>(((tseg2 - 1) << 4) | (tseg1 - 1));
    return true;
}

double RateForTiming(unsigned char btr0, unsigned char btr1) {
    unsigned brp = (btr0 & 0x3F) + 1u;
    unsigned nq = 1 + ((btr1 & 0x0F) + 1u) + (((btr1 >> 4) & 0x07) + 1u);
    return kQuantumClock / (brp * nq);
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
