// The server's pure pieces: socketcand commands, frame text, addresses.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Address.h"
#include "Command.h"
#include "Text.h"

using namespace vexlo_serve;

namespace {

// A parsed command in one line, so a row compares it whole.
std::string Show(const XCommand& c) {
    char text[200];
    const CAN_OBJ& f = c.frame;
    std::snprintf(text, sizeof(text), "%d bus=%s id=%X ext=%d rtr=%d len=%u data=%02X%02X%02X%02X%02X%02X%02X%02X us=%llu mask=%u:%02X%02X ms=%u",
                  c.kind, c.bus.c_str(), c.id, c.extended, f.RemoteFrame, f.DataLength, f.Data[0], f.Data[1], f.Data[2],
                  f.Data[3], f.Data[4], f.Data[5], f.Data[6], f.Data[7], static_cast<unsigned long long>(c.interval_us),
                  c.mask_len, c.mask[0], c.mask[1], c.ms);
    return text;
}

}  // namespace

TEST(ServeCommand, parses_each_command_or_names_the_fault) {
    struct Row {
        const char* text;
        const char* shown;  // Show() of the result, or the error text
    } rows[] = {
        {" open can0 ", "0 bus=can0 id=0 ext=0 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {"rawmode", "1 bus= id=0 ext=0 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {" send 1ABCDEF0 3 1 a2 FF ", "6 bus= id=1ABCDEF0 ext=1 rtr=0 len=3 data=01A2FF0000000000 us=0 mask=0:0000 ms=0"},
        {" send 9FFFFFFF 0 ", "6 bus= id=1FFFFFFF ext=1 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {" send 7FF 8 1 2 3 4 5 6 7 8 ", "6 bus= id=7FF ext=0 rtr=0 len=8 data=0102030405060708 us=0 mask=0:0000 ms=0"},
        {" send 800 0 ", "6 bus= id=800 ext=1 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {" sendrtr 00000123 8 ", "6 bus= id=123 ext=1 rtr=1 len=8 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {" add 1 500 12 1 EE ", "7 bus= id=12 ext=0 rtr=0 len=1 data=EE00000000000000 us=1000500 mask=0:0000 ms=0"},
        {" update 12 0 ", "8 bus= id=12 ext=0 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {" delete 00000012 ", "9 bus= id=12 ext=1 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {" subscribe 0 20000 321 ", "10 bus= id=321 ext=0 rtr=0 len=0 data=0000000000000000 us=20000 mask=0:0000 ms=0"},
        {" filter 0 0 321 2 F0 0F ", "12 bus= id=321 ext=0 rtr=0 len=0 data=0000000000000000 us=0 mask=2:F00F ms=0"},
        {" statistics 250 ", "14 bus= id=0 ext=0 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=250"},
        {" set_bitrate 500000 ", "15 bus= id=0 ext=0 rtr=0 len=0 data=0000000000000000 us=0 mask=0:0000 ms=0"},
        {"", "unknown command"},
        {" sendx 1 0 ", "unknown command"},
        {" open ", "wrong number of arguments"},
        {" echo 1 ", "wrong number of arguments"},
        {" open abcdefghijklmnopq ", "bus name longer than 16 characters"},
        {" send 123456789 0 ", "bad identifier"},
        {" send 12 -1 ", "bad length (0 to 8)"},
        {" send 12 2 1 ", "the number of data bytes differs from the length"},
        {" send 12 1 x1 ", "bad data byte"},
        {" sendrtr 12 9 ", "bad length (0 to 8)"},
        {" add 0 1000000 12 0 ", "bad interval"},
        {" filter 0 0 12 1 ", "the number of data bytes differs from the length"},
        {" statistics 99999999999 ", "bad interval"},
    };
    for (const Row& r : rows) {
        XCommand cmd;
        std::string error;
        bool ok = ParseCommand(r.text, &cmd, &error);
        EXPECT_EQ(ok ? Show(cmd) : error, r.shown) << r.text;
    }
}

TEST(ServeCommand, reader_cuts_commands_and_refuses_long_ones) {
    struct Row {
        std::string stream;
        std::vector<std::string> out;  // commands, "!" for a refusal
    } rows[] = {
        {"junk< hi >< a b ><", {" hi ", " a b "}},
        {"< half < open can0 >", {" open can0 "}},
        {"<" + std::string(XCommandReader::kMaxCommand, 'x') + ">", {std::string(XCommandReader::kMaxCommand, 'x')}},
        {"<" + std::string(XCommandReader::kMaxCommand + 1, 'x') + "> < echo >", {"!", " echo "}},
    };
    for (const Row& r : rows) {
        XCommandReader reader;
        std::vector<std::string> out;
        std::string cmd;
        for (char c : r.stream) {
            XCommandReader::Status s = reader.Take(c, &cmd);
            if (s == XCommandReader::kCommand) out.push_back(cmd);
            if (s == XCommandReader::kTooLong) out.push_back("!");
        }
        EXPECT_EQ(out, r.out) << r.stream.size();
    }
}

TEST(ServeText, frames_remote_and_error_frames) {
    struct Row {
        unsigned id, flags;
        unsigned char ext, rtr, len;
        const char* text;
    } rows[] = {
        {0x123, 0, 0, 0, 4, "< frame 123 1700000000.000042 01020304 >"},
        {0x7FF, 0, 0, 0, 0, "< frame 7FF 1700000000.000042  >"},
        {0x1ABCDEF, 0, 1, 0, 15, "< frame 01ABCDEF 1700000000.000042 0102030405060708 >"},
        {0x12, 0, 1, 1, 3, "< rtr 00000012 1700000000.000042 3 >"},
        {0x204, VEXLO_FRAME_ERROR, 0, 0, 8, "< error 00000204 1700000000.000042 >"},
    };
    for (const Row& r : rows) {
        VEXLO_FRAME f;
        std::memset(&f, 0, sizeof(f));
        f.frame.Id = r.id;
        f.frame.ExtendedFrame = r.ext;
        f.frame.RemoteFrame = r.rtr;
        f.frame.DataLength = r.len;
        for (int i = 0; i < 8; ++i) f.frame.Data[i] = static_cast<unsigned char>(i + 1);
        f.flags = r.flags;
        f.host_us = 1700000000000042ull;
        char out[kEventText];
        EXPECT_EQ(std::string(out, FormatEvent(f, out)), r.text);
    }
}

TEST(ServeAddress, networks_admit_their_addresses) {
    std::vector<XCidr> list;
    std::string error;
    ASSERT_TRUE(ParseCidrList("192.168.1.0/23,10.1.2.3,fe80::/10,::ffff:127.0.0.1", &list, &error));
    struct Row {
        const char* addr;
        bool in;
    } rows[] = {{"192.168.0.255", true}, {"192.168.2.0", false}, {"10.1.2.3", true}, {"10.1.2.4", false},
                {"::ffff:192.168.1.7", true}, {"fe80::1", true}, {"fec0::1", false}, {"127.0.0.1", true},
                {"::ffff:127.0.0.1", true}, {"127.0.0.2", false}};
    for (const Row& r : rows) {
        sockaddr_storage ss{};
        if (std::strchr(r.addr, ':')) {
            ss.ss_family = AF_INET6;
            inet_pton(AF_INET6, r.addr, &reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr);
        } else {
            ss.ss_family = AF_INET;
            inet_pton(AF_INET, r.addr, &reinterpret_cast<sockaddr_in*>(&ss)->sin_addr);
        }
        EXPECT_EQ(CidrMatch(list, ss), r.in) << r.addr;
    }
    for (const char* bad : {"10.0.0.0/33", "10.0.0/8", "::/129", "1.2.3.4/", ""})
        EXPECT_FALSE(ParseCidrList(bad, &list, &error)) << bad;
}
