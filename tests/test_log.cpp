// The log line form, the mask gates, VCI_Debug and the time stamps.
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "utils.h"

static int LogSample() {
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d\n", 4, 0);
    XDBG(XLOG_RECV, "cache size: %d + %d = %d\n", 0, 19, 19);
    XDBG(XLOG_GENERAL | XLOG_RECV, "both\n");
    XWRN("device opened\n");
    XERR("invalid parameters\n");
    return __LINE__ - 1;
}

TEST(Log, LineFormAndMaskGates) {
    LogCapture cap;
    struct Row {
        unsigned mask;
        std::vector<std::string> dbg;  // the DBG lines written, in order, before WRN and ERR
    };
    const Row rows[] = {{0, {}},
                        {XLOG_GENERAL, {"+++ Type=4, Card=0"}},
                        {XLOG_RECV, {"cache size: 0 + 19 = 19"}},
                        {XLOG_GENERAL | XLOG_RECV, {"+++ Type=4, Card=0", "cache size: 0 + 19 = 19", "both"}}};
    for (const Row& r : rows) {
        VCI_Debug(r.mask);
        int err_line = LogSample();
        auto lines = LogCapture::Lines(cap.Take());
        ASSERT_EQ(lines.size(), r.dbg.size() + 2) << r.mask;
        for (size_t i = 0; i < r.dbg.size(); ++i)
            EXPECT_TRUE(std::regex_match(lines[i], LogLine("DBG", "int LogSample()", r.dbg[i]))) << lines[i];
        EXPECT_TRUE(std::regex_match(lines[r.dbg.size()], LogLine("WRN", "int LogSample()", "device opened")));
        EXPECT_NE(lines.back().find("int LogSample()<" + std::to_string(err_line) + ">: invalid parameters"),
                  std::string::npos) << lines.back();
    }
    VCI_Debug(0);
    // A line longer than any buffer is written whole.
    std::string big(3000, 'x');
    XERR("%s\n", big.c_str());
    std::string text = cap.Take();
    EXPECT_EQ(text.find(": vexlo: ERR: "), 17u);
    EXPECT_EQ(text.substr(text.size() - 3001), big + "\n");
}

TEST(Log, DebugNeverSetsTheDumpBitADirectWriteDoes) {
    EXPECT_EQ(VCI_Debug(0xFFFFFFFFu), 0xFFFFFFEFu);
    EXPECT_EQ(VCI_Debug(0x10), 0u);
    EXPECT_EQ(VCI_Debug(0x25), 0x25u);
    EXPECT_EQ(gdbg, 0x25u);
    gdbg = 0;  // the dump a direct write turns on: in the library's trace test
}

// The text form is the stamp of every log line the log tests match.
TEST(Time, NowAndStopwatch) {
    unsigned long long us = 1;
    EXPECT_TRUE(XTime::Now(&us));
    EXPECT_GT(us, 1600000000ULL * 1000000ULL);
    EXPECT_TRUE(XTime::Now(nullptr));
    // Before any Stop the span is 0; afterwards spans truncate.
    XTimer timer;
    EXPECT_EQ(timer.usecs(), 0u);
    timer.start_ = 1000;
    timer.stop_ = 1000 + 1999999;
    EXPECT_EQ(timer.secs(), 1u);
    EXPECT_EQ(timer.msecs(), 1999u);
}
