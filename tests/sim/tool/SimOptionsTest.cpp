// vexlo-sim's command line (fault options) and the lines of its bus trace.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tool/SimOptions.h"
#include "tool/SimTrace.h"

using namespace vexlo_sim;

namespace {

bool Parse(std::vector<std::string> args, SimToolOptions* opt, std::string* error) {
    args.insert(args.begin(), "vexlo-sim");
    args.push_back("--");
    args.push_back("prog");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    return SimParseOptions(static_cast<int>(argv.size()), argv.data(), opt, error);
}

}  // namespace

TEST(SimToolOptions, fault_options_parse_and_bad_values_are_refused) {
    SimToolOptions o;
    std::string error;
    ASSERT_TRUE(Parse({"-n", "2", "--unplug", "0:1:3", "--unplug", "1:0.5", "--unplug", "0:3",
                       "--answer-delay", "1:1300", "--answer-delay", "0:20:2.5", "--trace", "-"},
                      &o, &error))
        << error;
    ASSERT_EQ(o.unplugs.size(), 3u);
    EXPECT_EQ(o.unplugs[0].adapter, 0u);
    EXPECT_EQ(o.unplugs[0].at, 1.0);
    EXPECT_EQ(o.unplugs[0].back, 3.0);
    EXPECT_EQ(o.unplugs[1].at, 0.5);
    EXPECT_LT(o.unplugs[1].back, 0);  // never plugged back
    ASSERT_EQ(o.delays.size(), 2u);
    EXPECT_EQ(o.delays[0].adapter, 1u);
    EXPECT_EQ(o.delays[0].ms, 1300u);
    EXPECT_EQ(o.delays[0].at, 0.0);
    EXPECT_EQ(o.delays[1].at, 2.5);
    EXPECT_EQ(o.trace, "-");

    struct Row {
        std::vector<std::string> args;
        const char* error;
    } bad[] = {
        {{"--unplug", "0"}, "bad unplug '0'"},
        {{"--unplug", "0:x"}, "bad unplug"},
        {{"--unplug", "0:-1"}, "bad unplug"},
        {{"--unplug", "0:2:2"}, "BACK after AT"},
        {{"--unplug", "0:1:2:3"}, "bad unplug"},
        {{"--unplug", "1:1"}, "unplug names adapter 1, which does not exist"},
        {{"--unplug", "0:1:5", "--unplug", "0:4:6"}, "unplugs of adapter 0 overlap"},
        {{"--unplug", "0:1", "--unplug", "0:9:10"}, "overlap"},
        {{"--answer-delay", "0"}, "bad answer delay"},
        {{"--answer-delay", "0:1e3"}, "bad answer delay"},
        {{"--answer-delay", "0:3600001"}, "MS at most 3600000"},
        {{"--answer-delay", "0:10:nan"}, "bad answer delay"},
        {{"--answer-delay", "2:10"}, "answer delay names adapter 2"},
        {{"--trace", ""}, "needs a file name"},
        {{"--trace"}, "needs a value"},
    };
    for (const Row& r : bad) {
        SimToolOptions x;
        error.clear();
        EXPECT_FALSE(Parse(r.args, &x, &error)) << r.args[0] << " " << r.args.back();
        EXPECT_NE(error.find(r.error), std::string::npos) << error;
    }
}

TEST(SimTrace, lines_follow_the_candump_log_format) {
    struct Row {
        bool ext, rtr;
        uint32_t id;
        uint8_t dlc;
        const char* line;
    } rows[] = {
        {false, false, 0x123, 4, "(1700000000.000042) sim1can0 123#DEADBEEF\n"},
        {false, false, 0x7, 0, "(1700000000.000042) sim1can0 007#\n"},
        {true, false, 0x1234, 2, "(1700000000.000042) sim1can0 00001234#DEAD\n"},
        {false, true, 0x123, 5, "(1700000000.000042) sim1can0 123#R5\n"},
        {true, true, 0x1FFFFFFF, 0, "(1700000000.000042) sim1can0 1FFFFFFF#R\n"},
        {false, false, 0x1, 12, "(1700000000.000042) sim1can0 001#DEADBEEF00000001_C\n"},
    };
    for (const Row& r : rows) {
        SimFrame f;
        f.ext = r.ext;
        f.rtr = r.rtr;
        f.id = r.id;
        f.dlc = r.dlc;
        const uint8_t data[8] = {0xDE, 0xAD, 0xBE, 0xEF, 0, 0, 0, 1};
        std::copy(data, data + 8, f.data);
        std::string out;
        SimTrace::AppendLine(&out, 1700000000000042999ull, 1, 0, f);
        EXPECT_EQ(out, r.line);
    }
}
