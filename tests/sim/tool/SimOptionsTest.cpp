// vexlo-sim's options, good and bad (numbers out of range refused naming the largest), and the
// lines of its bus trace.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tool/SimOptions.h"
#include "tool/SimTrace.h"

using namespace vexlo_sim;

namespace {

// The faults and trace that a command line asks for, as text; or its error.
std::string Parse(std::vector<std::string> args) {
    args.insert(args.begin(), "vexlo-sim");
    args.insert(args.end(), {"--", "prog"});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    SimToolOptions o;
    std::string out;
    if (!SimParseOptions(static_cast<int>(argv.size()), argv.data(), &o, &out)) return out;
    char buf[64];
    for (const SimToolUnplug& u : o.unplugs)
        out += (std::snprintf(buf, sizeof buf, "unplug %u %g %g; ", u.adapter, u.at, u.back), buf);
    for (const SimToolDelay& d : o.delays)
        out += (std::snprintf(buf, sizeof buf, "delay %u %u %g; ", d.adapter, d.ms, d.at), buf);
    return out + "trace " + o.trace;
}

}  // namespace

TEST(SimToolOptions, fault_options_parse_and_bad_values_are_refused) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"-n", "2", "--unplug", "0:1:3", "--unplug", "1:0.5", "--unplug", "0:3"},
         "unplug 0 1 3; unplug 1 0.5 -1; unplug 0 3 -1; trace "},
        {{"--answer-delay", "0:1300", "--answer-delay", "0:20:2.5", "--trace", "-"},
         "delay 0 1300 0; delay 0 20 2.5; trace -"},
        {{"--unplug", "0"}, "bad unplug '0' (A:AT[:BACK] in seconds from the start, at most 31622400, BACK after AT)"},
        {{"--unplug", "0:-1"}, "bad unplug '0:-1' (A:AT[:BACK] in seconds from the start, at most 31622400, BACK after AT)"},
        {{"--unplug", "0:2:2"}, "bad unplug '0:2:2' (A:AT[:BACK] in seconds from the start, at most 31622400, BACK after AT)"},
        {{"--unplug", "1:1"}, "unplug names adapter 1, which does not exist"},
        {{"--unplug", "0:1:5", "--unplug", "0:4:6"}, "unplugs of adapter 0 overlap"},
        {{"--unplug", "0:1", "--unplug", "0:9:10"}, "unplugs of adapter 0 overlap"},
        {{"--answer-delay", "0:3600001"}, "bad answer delay '0:3600001' (A:MS[:AT], MS at most 3600000, AT in seconds, at most 31622400)"},
        {{"--answer-delay", "0:10:nan"}, "bad answer delay '0:10:nan' (A:MS[:AT], MS at most 3600000, AT in seconds, at most 31622400)"},
        {{"--answer-delay", "2:10"}, "answer delay names adapter 2, which does not exist"},
        {{"--trace", ""}, "option '--trace' needs a file name or -"},
        {{"--trace"}, "option '--trace' needs a value"},
        {{"-n", "33"}, "bad adapter count '33' (0 to 32)"},
        {{"-g", "0:1e-300"}, "bad generator rate in '0:1e-300' (frames/s from 0.001 to 1000000, or 0 for the bus ceiling)"},
        {{"-g", "0:nan"}, "bad generator rate in '0:nan' (frames/s from 0.001 to 1000000, or 0 for the bus ceiling)"},
        {{"-g", "0@4294967296"}, "bad generator adapter in '0@4294967296' (at most 31)"},
        {{"--serial", "99:X"}, "--serial names adapter 99, which does not exist"},
        {{"--serial", "0:ABCDEFGHIJKLMNO"}, "--serial 'ABCDEFGHIJKLMNO' is longer than 14 characters"},
        {{"--hw-version", "10000"}, "bad version '10000' (hex, at most FFFF)"},
    };
    for (const auto& r : rows) EXPECT_EQ(Parse(r.first), r.second);
}

TEST(SimTrace, lines_follow_the_candump_log_format) {
    const struct { bool ext, rtr; uint32_t id; uint8_t dlc; const char* line; } rows[] = {
        {false, false, 0x123, 4, "(1700000000.000042) sim1can0 123#DEADBEEF\n"},
        {true, false, 0x1234, 0, "(1700000000.000042) sim1can0 00001234#\n"},
        {false, true, 0x123, 5, "(1700000000.000042) sim1can0 123#R5\n"},
        {true, true, 0x1FFFFFFF, 0, "(1700000000.000042) sim1can0 1FFFFFFF#R\n"},
        {false, false, 0x1, 12, "(1700000000.000042) sim1can0 001#DEADBEEF00000001_C\n"},
    };
    for (const auto& r : rows) {
        SimFrame f{r.id, r.ext, r.rtr, r.dlc, {0xDE, 0xAD, 0xBE, 0xEF, 0, 0, 0, 1}, 0};
        std::string out;
        SimTrace::AppendLine(&out, 1700000000000042999ull, 1, 0, f);
        EXPECT_EQ(out, r.line);
    }
}
