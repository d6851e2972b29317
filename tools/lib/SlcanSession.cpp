#include "SlcanSession.h"

#include <cstring>

namespace vexlo_tool {
namespace {

const char kOk[] = "\r";
const char kError[] = "\a";

// "S0".."S8": the bit rates of the Lawicel devices and of the Linux kernel's slcan.
const unsigned kRates[] = {10000, 20000, 50000, 100000, 125000, 250000, 500000, 800000, 1000000};

const char kHex[] = "0123456789ABCDEF";

// Two characters of a version: its major number and the first digit of its minor (2.10 -> "21").
std::string VersionPair(unsigned short version) {
    return {kHex[(version >> 8) & 0xF], kHex[(version >> 4) & 0xF]};
}

bool SameTiming(const CAN_INIT& a, const CAN_INIT& b) {
    return a.BusTiming0 == b.BusTiming0 && a.BusTiming1 == b.BusTiming1;
}

}  // namespace

void XSlcanSession::Input(const char* data, size_t len, std::string* out) {
    splitter_.Feed(data, len, &commands_);
    Resume(out);
}

void XSlcanSession::Resume(std::string* out) {
    while (next_ < commands_.size() && Run(commands_[next_], out)) ++next_;
    if (next_ == commands_.size()) {
        commands_.clear();
        next_ = 0;
    }
}

void XSlcanSession::Received(const VEXLO_FRAME& frame, std::string* out) {
    if (frame.flags & VEXLO_FRAME_ERROR) {
        flags_ |= SlcanStatusFlags(frame.frame);
        std::string lines = FormatSlcanErrorState(frame.frame, &state_);
        if (open_) *out += lines;
        return;
    }
    if (open_) *out += FormatSlcanFrame(frame.frame, stamps_, frame.host_us);
}

void XSlcanSession::Refused(std::string* out) {
    flags_ |= 0x02;
    if (open_) *out += "e1O\r";
}

void XSlcanSession::End() {
    if (open_) port_->SetOpen(false);
    open_ = false;
}

bool XSlcanSession::Reconfigure(const CAN_INIT& init) {
    if (open_) return false;
    CAN_INIT now = port_->Config();
    if (SameTiming(now, init) && now.AcceptCode == init.AcceptCode && now.AcceptMask == init.AcceptMask &&
        (now.FilterMode != 0) == (init.FilterMode != 0))
        return true;
    return port_->Configure(init);
}

bool XSlcanSession::Run(const SlcanCommand& c, std::string* out) {
    bool ok = true;
    CAN_INIT init = port_->Config();
    switch (c.kind) {
    case SlcanCommand::kEmpty:
        break;
    case SlcanCommand::kOpen:
    case SlcanCommand::kListen:
        ok = open_ || port_->SetOpen(true);
        if (ok && !open_) state_ = 'a';  // as the kernel's slcan assumes when its interface goes up
        open_ = ok;
        listen_only_ = c.kind == SlcanCommand::kListen;
        break;
    case SlcanCommand::kClose:
        End();
        break;
    case SlcanCommand::kRate:
        ok = vexlo_timing_for_rate(kRates[c.value], &init.BusTiming0, &init.BusTiming1, nullptr, nullptr) == 1 &&
             Reconfigure(init);
        break;
    case SlcanCommand::kTiming:
        init.BusTiming0 = c.btr0;
        init.BusTiming1 = c.btr1;
        ok = Reconfigure(init);
        break;
    case SlcanCommand::kCode:
    case SlcanCommand::kMask:
        // The Lawicel devices run the acceptance filter in dual filter mode.
        (c.kind == SlcanCommand::kCode ? init.AcceptCode : init.AcceptMask) = c.value;
        init.FilterMode = 0;
        ok = Reconfigure(init);
        break;
    case SlcanCommand::kFrame: {
        XSlcanPort::SendResult sent = open_ && !listen_only_ ? port_->Send(c.frame) : XSlcanPort::kRefused;
        if (sent == XSlcanPort::kBusy) return false;
        ok = sent == XSlcanPort::kSent;
        if (ok) *out += c.frame.ExtendedFrame ? "Z" : "z";
        break;
    }
    case SlcanCommand::kStatus: {
        char text[4] = {'F', kHex[flags_ >> 4 & 0xF], kHex[flags_ & 0xF], 0};
        *out += text;
        flags_ = 0;
        break;
    }
    case SlcanCommand::kVersion:
        *out += "V" + VersionPair(identity_.hw_version) + VersionPair(identity_.fw_version);
        break;
    case SlcanCommand::kDetail:
        *out += "v";
        for (int shift = 12; shift >= 0; shift -= 4) *out += kHex[identity_.fw_version >> shift & 0xF];
        break;
    case SlcanCommand::kSerial: {
        // The last four characters of the adapter's serial number, printable ones only.
        std::string serial = "0000" + identity_.serial;
        serial = serial.substr(serial.size() - 4);
        for (char& ch : serial) {
            if (ch <= ' ' || ch > '~') ch = '0';
        }
        *out += "N" + serial;
        break;
    }
    case SlcanCommand::kStamps:
        stamps_ = c.value != 0;
        break;
    case SlcanCommand::kBad:
    case SlcanCommand::kOverlong:
        ok = false;
        break;
    }
    *out += ok ? kOk : kError;
    return true;
}

}  // namespace vexlo_tool
