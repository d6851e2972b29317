#include "SlcanText.h"

#include <cstdio>
#include <cstring>

#include "CanFrameText.h"

namespace vexlo_tool {
namespace {

// Reads `digits` hex digits at text; false if any is not one.
bool ReadHex(const char* text, size_t digits, uint32_t* value) {
    uint32_t v = 0;
    for (size_t i = 0; i < digits; ++i) {
        int d = HexValue(text[i]);
        if (d < 0) return false;
        v = v << 4 | static_cast<uint32_t>(d);
    }
    *value = v;
    return true;
}

const char kHex[] = "0123456789ABCDEF";

void PutHex(std::string* out, uint32_t value, int digits) {
    for (int i = digits - 1; i >= 0; --i) out->push_back(kHex[(value >> (4 * i)) & 0xF]);
}

// "tIIIL..", "TIIIIIIIIL..", "rIIIL", "RIIIIIIIIL" into a frame; false on any other shape.
bool ParseFrameCommand(const char* line, size_t len, CAN_OBJ* frame) {
    bool extended = line[0] == 'T' || line[0] == 'R';
    bool remote = line[0] == 'r' || line[0] == 'R';
    size_t id_digits = extended ? 8 : 3;
    uint32_t id = 0;
    if (len < 2 + id_digits || !ReadHex(line + 1, id_digits, &id)) return false;
    char dlc = line[1 + id_digits];
    if (dlc < '0' || dlc > '8') return false;
    size_t n = static_cast<size_t>(dlc - '0');
    if (len != 2 + id_digits + (remote ? 0 : 2 * n)) return false;
    if (!extended && id > 0x7FF) return false;
    std::memset(frame, 0, sizeof(*frame));
    frame->Id = extended ? id & 0x1FFFFFFF : id;
    frame->ExtendedFrame = extended;
    frame->RemoteFrame = remote;
    frame->DataLength = static_cast<unsigned char>(n);
    for (size_t i = 0; !remote && i < n; ++i) {
        uint32_t byte = 0;
        if (!ReadHex(line + 2 + id_digits + 2 * i, 2, &byte)) return false;
        frame->Data[i] = static_cast<unsigned char>(byte);
    }
    return true;
}

}  // namespace

SlcanCommand ParseSlcanCommand(const char* line, size_t len) {
    SlcanCommand c;
    if (len == 0) return c;
    c.kind = SlcanCommand::kBad;
    struct Single {
        char letter;
        SlcanCommand::Kind kind;
    };
    static const Single kSingles[] = {{'O', SlcanCommand::kOpen},    {'L', SlcanCommand::kListen},
                                      {'C', SlcanCommand::kClose},   {'F', SlcanCommand::kStatus},
                                      {'V', SlcanCommand::kVersion}, {'v', SlcanCommand::kDetail},
                                      {'N', SlcanCommand::kSerial}};
    uint32_t value = 0;
    switch (line[0]) {
    case 'S':
        if (len == 2 && line[1] >= '0' && line[1] <= '8') {
            c.kind = SlcanCommand::kRate;
            c.value = static_cast<uint32_t>(line[1] - '0');
        }
        return c;
    case 's':
        if (len == 5 && ReadHex(line + 1, 4, &value)) {
            c.kind = SlcanCommand::kTiming;
            c.btr0 = static_cast<unsigned char>(value >> 8);
            c.btr1 = static_cast<unsigned char>(value);
        }
        return c;
    case 'Z':
        if (len == 2 && (line[1] == '0' || line[1] == '1')) {
            c.kind = SlcanCommand::kStamps;
            c.value = line[1] == '1';
        }
        return c;
    case 'M':
    case 'm':
        if (len == 9 && ReadHex(line + 1, 8, &c.value))
            c.kind = line[0] == 'M' ? SlcanCommand::kCode : SlcanCommand::kMask;
        return c;
    case 't':
    case 'T':
    case 'r':
    case 'R':
        if (ParseFrameCommand(line, len, &c.frame)) c.kind = SlcanCommand::kFrame;
        return c;
    default:
        for (const Single& s : kSingles) {
            if (len == 1 && line[0] == s.letter) c.kind = s.kind;
        }
        return c;
    }
}

void XSlcanSplitter::Feed(const char* data, size_t len, std::vector<SlcanCommand>* commands) {
    for (size_t i = 0; i < len; ++i) {
        char ch = data[i];
        if (ch == '\n') continue;
        if (ch == '\r') {
            if (overlong_) {
                SlcanCommand c;
                c.kind = SlcanCommand::kOverlong;
                commands->push_back(c);
            } else {
                commands->push_back(ParseSlcanCommand(line_, len_));
            }
            len_ = 0;
            overlong_ = false;
        } else if (len_ < kSlcanMaxLine) {
            line_[len_++] = ch;
        } else {
            overlong_ = true;
        }
    }
}

std::string FormatSlcanFrame(const CAN_OBJ& frame, bool stamp, uint64_t host_us) {
    std::string out;
    out.reserve(32);
    bool extended = frame.ExtendedFrame != 0;
    out.push_back(frame.RemoteFrame ? (extended ? 'R' : 'r') : (extended ? 'T' : 't'));
    PutHex(&out, extended ? frame.Id & 0x1FFFFFFF : frame.Id & 0x7FF, extended ? 8 : 3);
    unsigned n = frame.DataLength > 8 ? 8 : frame.DataLength;
    out.push_back(static_cast<char>('0' + n));
    for (unsigned i = 0; !frame.RemoteFrame && i < n; ++i) PutHex(&out, frame.Data[i], 2);
    if (stamp) PutHex(&out, static_cast<uint32_t>(host_us / 1000 % 60000), 4);
    out.push_back('\r');
    return out;
}

namespace {
// Error classes of the Linux error-frame layout.
const unsigned kLostArbitration = 0x002, kController = 0x004, kProtocol = 0x008, kBusOff = 0x040, kBusError = 0x080,
               kCounters = 0x200;
}  // namespace

unsigned SlcanStatusFlags(const CAN_OBJ& error_frame) {
    unsigned cls = error_frame.Id, detail = error_frame.Data[1], flags = 0;
    if (cls & kLostArbitration) flags |= 0x40;
    if (cls & kController) {
        if (detail & 0x03) flags |= 0x08;  // receive or transmit overflow
        if (detail & 0x0C) flags |= 0x04;  // receive or transmit warning
        if (detail & 0x30) flags |= 0x20;  // receive or transmit passive
    }
    if (cls & (kProtocol | kBusError | kBusOff)) flags |= 0x80;
    return flags;
}

std::string FormatSlcanErrorState(const CAN_OBJ& error_frame, char* state) {
    std::string out;
    unsigned cls = error_frame.Id, detail = error_frame.Data[1];
    if (!(cls & kController)) return out;
    if (detail & 0x01) out += "e1o\r";
    unsigned tx = 0, rx = 0;
    char next = *state;
    if ((cls & kCounters) && (detail & 0x30)) {
        tx = error_frame.Data[6];
        rx = error_frame.Data[7];
        unsigned most = tx > rx ? tx : rx;
        next = most >= 128 ? 'p' : most >= 96 ? 'w' : 'a';
    } else if (detail & 0x0C) {
        next = *state == 'a' ? 'w' : *state == 'w' ? 'a' : *state;
    }
    if (next == *state) return out;
    *state = next;
    char text[16];
    std::snprintf(text, sizeof(text), "s%c%03u%03u\r", next, rx, tx);
    return out + text;
}

}  // namespace vexlo_tool
