#include "Text.h"

#include <cstdio>

namespace vexlo_serve {

namespace {

const char kHex[] = "0123456789ABCDEF";

char* Put(char* p, const char* s) {
    while (*s) *p++ = *s++;
    return p;
}

char* PutHex(char* p, unsigned v, int digits) {
    for (int i = digits - 1; i >= 0; --i) *p++ = kHex[(v >> (4 * i)) & 0xF];
    return p;
}

char* PutDecimal(char* p, uint64_t v, int min_digits) {
    char tmp[24];
    int n = 0;
    do {
        tmp[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v || n < min_digits);
    while (n) *p++ = tmp[--n];
    return p;
}

char* PutTime(char* p, uint64_t us) {
    p = PutDecimal(p, us / 1000000, 1);
    *p++ = '.';
    return PutDecimal(p, us % 1000000, 6);
}

}  // namespace

size_t FormatEvent(const VEXLO_FRAME& f, char* out) {
    // Written by hand: this runs for every frame and every client.
    char* p = out;
    const CAN_OBJ& c = f.frame;
    unsigned len = c.DataLength > 8 ? 8 : c.DataLength;
    if (f.flags & VEXLO_FRAME_ERROR) {
        p = Put(p, "< error ");
        p = PutHex(p, c.Id & 0x1FFFFFFF, 8);
        *p++ = ' ';
        p = PutTime(p, f.host_us);
        p = Put(p, " >");
        return static_cast<size_t>(p - out);
    }
    p = Put(p, c.RemoteFrame ? "< rtr " : "< frame ");
    p = c.ExtendedFrame ? PutHex(p, c.Id & 0x1FFFFFFF, 8) : PutHex(p, c.Id & 0x7FF, 3);
    *p++ = ' ';
    p = PutTime(p, f.host_us);
    *p++ = ' ';
    if (c.RemoteFrame) {
        p = PutDecimal(p, len, 1);
    } else {
        for (unsigned i = 0; i < len; ++i) {
            *p++ = kHex[c.Data[i] >> 4];
            *p++ = kHex[c.Data[i] & 0xF];
        }
    }
    p = Put(p, " >");
    return static_cast<size_t>(p - out);
}

size_t FormatStat(uint64_t rbytes, uint64_t rpackets, uint64_t tbytes, uint64_t tpackets, char* out, size_t room) {
    int n = std::snprintf(out, room, "< stat %llu %llu %llu %llu >", static_cast<unsigned long long>(rbytes),
                          static_cast<unsigned long long>(rpackets), static_cast<unsigned long long>(tbytes),
                          static_cast<unsigned long long>(tpackets));
    return n < 0 ? 0 : static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
}

}  // namespace vexlo_serve
