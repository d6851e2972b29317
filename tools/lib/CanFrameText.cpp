#include "CanFrameText.h"

#include <cstring>

namespace vexlo_tool {

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
namespace {


const char kHex[] = "0123456789ABCDEF";

void PutHex(std::string* out, unsigned value, int digits) {
    for (int i = digits - 1; i >= 0; --i) out->push_back(kHex[(value >> (4 * i)) & 0xF]);
}

bool Fail(std::string* error, const char* reason) {
    *error = reason;
    return false;
}

void PutId(std::string* out, const CAN_OBJ& frame, bool error) {
    if (error) PutHex(out, kErrFlag | (frame.Id & 0x1FFFFFFFu), 8);
    else PutHex(out, frame.Id, frame.ExtendedFrame ? 8 : 3);
}

}  // namespace

bool ParseFrame(const std::string& text, CAN_OBJ* frame, std::string* error) {
    std::memset(frame, 0, sizeof(*frame));
    size_t hash = text.find('#');
    if (hash == std::string::npos) return Fail(error, "no '#' between identifier and data");
    std::string id = text.substr(0, hash), data = text.substr(hash + 1);
    if (id.size() != 3 && id.size() != 8) return Fail(error, "identifier needs 3 or 8 hex digits");
    unsigned long value = 0;
    for (char c : id) {
        if (HexValue(c) < 0) return Fail(error, "identifier is not hex");
        value = value * 16 + static_cast<unsigned>(HexValue(c));
    }
    frame->ExtendedFrame = id.size() == 8;
    if (!frame->ExtendedFrame && value > 0x7FF) return Fail(error, "standard identifier above 7FF");
    if (frame->ExtendedFrame && value > 0x1FFFFFFF) return Fail(error, "extended identifier above 1FFFFFFF");
    frame->Id = static_cast<unsigned>(value);
    if (!data.empty() && data[0] == '#') return Fail(error, "CAN FD frames are not supported");
    if (!data.empty() && (data[0] == 'R' || data[0] == 'r')) {
        frame->RemoteFrame = 1;
        if (data.size() == 1) return true;
        if (data.size() != 2 || data[1] < '0' || data[1] > '8')
            return Fail(error, "remote length must be one digit 0 to 8");
        frame->DataLength = static_cast<unsigned char>(data[1] - '0');
        return true;
    }
    size_t n = 0;
    for (size_t i = 0; i < data.size();) {
        if (data[i] == '.') {
            ++i;
            continue;
        }
        if (i + 1 >= data.size() || HexValue(data[i]) < 0 || HexValue(data[i + 1]) < 0)
            return Fail(error, "data must be pairs of hex digits");
        if (n == 8) return Fail(error, "more than 8 data bytes");
        frame->Data[n++] = static_cast<unsigned char>(HexValue(data[i]) * 16 + HexValue(data[i + 1]));
        i += 2;
    }
    frame->DataLength = static_cast<unsigned char>(n);
    return true;
}

std::string FormatFrame(const CAN_OBJ& frame, bool error) {
    std::string out;
    out.reserve(32);
    PutId(&out, frame, error);
    out.push_back('#');
    unsigned len = frame.DataLength > 8 ? 8 : frame.DataLength;
    if (frame.RemoteFrame) {
        out.push_back('R');
        if (len) out.push_back(kHex[len]);
        return out;
    }
    for (unsigned i = 0; i < len; ++i) PutHex(&out, frame.Data[i], 2);
    return out;
}

std::string FormatFrameLine(const std::string& name, const CAN_OBJ& frame, bool error) {
    std::string out = "  " + name + "  ";
    PutId(&out, frame, error);
    out += "   [";
    out += std::to_string(frame.DataLength);
    out += "] ";
    if (frame.RemoteFrame) return out + " remote request";
    unsigned len = frame.DataLength > 8 ? 8 : frame.DataLength;
    for (unsigned i = 0; i < len; ++i) {
        out.push_back(' ');
        PutHex(&out, frame.Data[i], 2);
    }
    return error ? out + "   ERRORFRAME" : out;
}

}  // namespace vexlo_tool
