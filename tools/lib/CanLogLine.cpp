#include "CanLogLine.h"

#include <cctype>
#include <sstream>

#include "CanFrameText.h"

namespace vexlo_tool {

bool ParseLogLine(const std::string& line, LogLine* out, std::string* error) {
    std::istringstream in(line);
    std::string stamp, name, frame, direction, extra;
    in >> stamp >> name >> frame >> direction >> extra;
    if (frame.empty()) {
        *error = "needs (SECONDS.MICROS) NAME FRAME";
        return false;
    }
    if (!extra.empty() || !(direction.empty() || direction == "R" || direction == "T")) {
        *error = "unexpected text after the frame";
        return false;
    }
    size_t dot = stamp.find('.');
    if (stamp.size() < 4 || stamp.front() != '(' || stamp.back() != ')' || dot == std::string::npos ||
        dot == 1 || stamp.size() - dot - 2 == 0 || stamp.size() - dot - 2 > 9) {
        *error = "bad time stamp '" + stamp + "'";
        return false;
    }
    std::string sec = stamp.substr(1, dot - 1), frac = stamp.substr(dot + 1, stamp.size() - dot - 2);
    if (sec.size() > 12 || sec.find_first_not_of("0123456789") != std::string::npos ||
        frac.find_first_not_of("0123456789") != std::string::npos) {
        *error = "bad time stamp '" + stamp + "'";
        return false;
    }
    frac = (frac + "000000").substr(0, 6);  // more than 6 digits: cut to microseconds
    // candump -L writes an error frame with the error flag 0x20000000 in its 8-digit identifier
    // ("20000004#0001000000000000"): the flag is taken off and the class read as an identifier.
    unsigned lead = frame.size() > 8 && frame[8] == '#' && std::isxdigit(static_cast<unsigned char>(frame[0]))
                        ? static_cast<unsigned>(std::stoul(frame.substr(0, 1), nullptr, 16)) : 0;
    out->error = (lead & 2) != 0;
    if (out->error) frame[0] = "0123456789ABCDEF"[lead & ~2u];
    std::string why;
    if (!ParseFrame(frame, &out->frame, &why)) {
        *error = "frame '" + frame + "': " + why;
        return false;
    }
    out->time_us = std::stoull(sec) * 1000000 + std::stoull(frac);
    out->channel = name;
    return true;
}

std::string FormatLogLine(uint64_t time_us, const std::string& channel, const CAN_OBJ& frame, bool error) {
    // Digits by hand: this runs for every frame of a dump at the bus ceiling.
    char stamp[32];
    char* p = stamp + sizeof(stamp);
    *--p = ' ';
    *--p = ')';
    uint64_t v = time_us;
    for (int i = 0; i < 6; ++i, v /= 10) *--p = static_cast<char>('0' + v % 10);
    *--p = '.';
    for (int i = 0; i < 10 || v; ++i, v /= 10) *--p = static_cast<char>('0' + v % 10);
    *--p = '(';
    std::string out(p, stamp + sizeof(stamp) - p);
    out += channel;
    out.push_back(' ');
    out += FormatFrame(frame, error);
    return out;
}

int LogChannelNumber(const std::string& name) {
    size_t i = name.size();
    while (i > 0 && name[i - 1] >= '0' && name[i - 1] <= '9') --i;
    if (i == name.size() || name.size() - i > 4) return -1;
    return std::stoi(name.substr(i));
}

}  // namespace vexlo_tool
