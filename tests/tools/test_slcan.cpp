// The serial-line CAN session over a recording channel: one table of client bytes, the replies
// and what reached the channel, in order on one line.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "CanFrameText.h"
#include "SlcanSession.h"

using namespace vexlo_tool;

namespace {

class XRecordingPort : public XSlcanPort {
public:
    CAN_INIT Config() override { return init_; }
    bool Configure(const CAN_INIT& init) override {
        if (shared_) return false;
        init_ = init;
        char text[48];
        calls_ += std::string(text, std::snprintf(text, sizeof(text), "cfg %02X:%02X %08X/%08X ", init.BusTiming0,
                                                  init.BusTiming1, init.AcceptCode, init.AcceptMask));
        return true;
    }
    SendResult Send(const CAN_OBJ& frame) override {
        if (busy_) return kBusy;
        calls_ += "send " + FormatFrame(frame) + " ";
        return kSent;
    }
    bool SetOpen(bool open) override {
        calls_ += open ? "open " : "closed ";
        return true;
    }

    CAN_INIT init_{0, 0xFFFFFFFF, 0, 1, 0x00, 0x1C, 0};
    bool shared_ = false, busy_ = false;
    std::string calls_;
};

// A frame of bytes A0 A1 ... received at 61,234 ms: stamp 1234 (04D2) after the wrap at 60,000.
// Error frames carry `detail` in Data[1] (default "receive and transmit passive").
VEXLO_FRAME Frame(unsigned id, bool ext, bool rtr, unsigned len, unsigned flags = 0, unsigned char detail = 0x30) {
    VEXLO_FRAME f{{id, 0, 0, 0, static_cast<unsigned char>(rtr), static_cast<unsigned char>(ext),
                   static_cast<unsigned char>(len), {0xA0, static_cast<unsigned char>(flags ? detail : 0xA1), 0xA2, 0xA3,
                   0xA4, 0xA5, 0xA6, 0xA7}, {0, 0, 0}}, flags, 0, 61234567};
    return f;
}

}  // namespace

TEST(Slcan, session_answers_and_reaches_the_channel) {
    struct Row {
        const char* in;
        const char* out;
        const char* calls;
        bool shared = false;
    };
    const Row rows[] = {
        {"t1230\rC\r", "\a\r", ""},  // no frame on a closed line; C tolerated
        {"\rO\rO\r", "\r\r\r", "open "},
        {"t1232dead\rT923456781AA\rr7FF8\rR000000010\r", "z\rZ\rz\rZ\r",
         "send 123#DEAD send 12345678#AA send 7FF#R8 send 00000001#R "},
        {"t8000\rt12\rt1239\rt1231AAB\rT1234567\rS4\r", "\a\a\a\a\a\a", ""},
        {"C\rS4\rS4\rs0014\rS9\r", "\r\r\r\r\a", "closed cfg 03:1C 00000000/FFFFFFFF cfg 00:14 00000000/FFFFFFFF "},
        {"M12345678\rm0000FFFF\r", "\r\r", "cfg 00:14 12345678/FFFFFFFF cfg 00:14 12345678/0000FFFF "},
        {"S6\rs0014\rX\rv\r", "\a\r\av0318\r", "", true},  // shared: only the channel's own timing
        {"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA\n\rZ1\rZ2\r", "\a\r\a", ""},
        {"L\rt1230\rO\rt1230\r", "\r\a\rz\r", "open send 123# "},
    };
    XRecordingPort port;
    XSlcanSession session(&port, {0x0210, 0x0318, "VXSIM0123"});
    for (const Row& r : rows) {
        SCOPED_TRACE(r.in);
        port.shared_ = r.shared;
        port.calls_.clear();
        std::string out, in = r.in;
        session.Input(in.data(), in.size() / 2, &out);  // in two writes, cut anywhere
        session.Input(in.data() + in.size() / 2, in.size() - in.size() / 2, &out);
        EXPECT_EQ(out, r.out);
        EXPECT_EQ(port.calls_, r.calls);
    }
    // Received frames with Z1 on: every field, the stamp, the length clipped; error frames raise flags
    // and give the kernel's state lines (warning, passive with its counters) and receive overruns; a
    // frame the adapter did not take gives a transmit overrun.
    std::string out;
    for (const VEXLO_FRAME& f :
         {Frame(0x123, false, false, 2), Frame(0x1ABCDEF0, true, false, 12), Frame(0x7FF, false, true, 3),
          Frame(0x002, false, false, 8, VEXLO_FRAME_ERROR), Frame(0x004, false, false, 8, VEXLO_FRAME_ERROR, 0x0C),
          Frame(0x204, false, false, 8, VEXLO_FRAME_ERROR), Frame(0x004, false, false, 8, VEXLO_FRAME_ERROR, 0x01)})
        session.Received(f, &out);
    session.Input("F\r", 2, &out);
    session.Refused(&out);
    session.Input("F\rF\r", 4, &out);
    EXPECT_EQ(out, "t1232A0A104D2\rT1ABCDEF08A0A1A2A3A4A5A6A704D2\rr7FF304D2\rsw000000\rsp167166\re1o\rF6C\re1O\rF02\r"
                   "F00\r");
    // A busy channel holds the frame and the commands after it until Resume.
    port.busy_ = true;
    out.clear();
    session.Input("t1230\rV\r", 8, &out);
    EXPECT_TRUE(out.empty() && session.waiting());
    port.busy_ = false;
    session.Resume(&out);
    EXPECT_EQ(out, "z\rV2131\r");
}
