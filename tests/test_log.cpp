// The log line form, the mask gates and VCI_Debug.
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "utils.h"

static void LogSample() {
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d\n", 4, 0);
    XDBG(XLOG_RECV, "cache size: %d + %d = %d\n", 0, 19, 19);
    XDBG(XLOG_GENERAL | XLOG_RECV, "both\n");
    XWRN("device opened\n");
    XERR("invalid parameters\n");
}

TEST(Log, LineFormAndMaskGates) {
    LogCapture cap;
    VCI_Debug(0);
    LogSample();
    auto lines = LogCapture::Lines(cap.Take());
    // With the mask at 0 only the warning and the error are written.
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(lines[0], LogLine("WRN", "void LogSample()", "device opened")));
    EXPECT_TRUE(std::regex_match(lines[1], LogLine("ERR", "void LogSample()", "invalid parameters")));

    VCI_Debug(XLOG_GENERAL);
    LogSample();
    lines = LogCapture::Lines(cap.Take());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(std::regex_match(lines[0], LogLine("DBG", "void LogSample()", "+++ Type=4, Card=0")));

    // A combined row needs both of its bits.
    VCI_Debug(XLOG_RECV);
    LogSample();
    lines = LogCapture::Lines(cap.Take());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(std::regex_match(lines[0], LogLine("DBG", "void LogSample()", "cache size: 0 + 19 = 19")));

    VCI_Debug(XLOG_GENERAL | XLOG_RECV);
    LogSample();
    lines = LogCapture::Lines(cap.Take());
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_TRUE(std::regex_match(lines[2], LogLine("DBG", "void LogSample()", "both")));
    VCI_Debug(0);
}

TEST(Log, LineNumberIsTheStatementsLine) {
    LogCapture cap;
    const int line = __LINE__ + 1;
    XERR("here\n");
    std::string text = cap.Take();
    EXPECT_NE(text.find("<" + std::to_string(line) + ">: here\n"), std::string::npos) << text;
}

TEST(Log, DebugMaskNeverSetsDumpBit) {
    EXPECT_EQ(VCI_Debug(0xFFFFFFFFu), 0xFFFFFFEFu);
    EXPECT_EQ(gdbg, 0xFFFFFFEFu);
    EXPECT_EQ(VCI_Debug(0x10), 0u);
    EXPECT_EQ(VCI_Debug(0x25), 0x25u);
    EXPECT_EQ(gdbg, 0x25u);
    // Only a direct write switches the dumps on.
    LogCapture cap;
    const U8 bytes[] = {0x12, 0x0d, 0x03, 0x00, 0x10, 0x0e};
    XDUMP(XLOG_DUMP, "cmd: ", bytes, sizeof(bytes));
    EXPECT_EQ(cap.Take(), "");
    gdbg = XLOG_DUMP;
    XDUMP(XLOG_DUMP, "cmd: ", bytes, sizeof(bytes));
    std::string text = cap.Take();
    EXPECT_TRUE(std::regex_match(text, LogLine("DBG", "virtual void Log_DebugMaskNeverSetsDumpBit_Test::TestBody()",
                                               "cmd: 12 0d 03 00 10 0e \n")))
        << text;
    gdbg = 0;
}

TEST(Log, LongLinesAreWrittenWhole) {
    LogCapture cap;
    std::string big(3000, 'x');
    XERR("%s\n", big.c_str());
    std::string text = cap.Take();
    ASSERT_GT(text.size(), 3000u);
    EXPECT_EQ(text.substr(text.size() - 3001), big + "\n");
    EXPECT_EQ(text.find(": vexlo: ERR: "), 17u);
}

TEST(Time, TextAndStopwatch) {
    std::string t = XTime::Text();
    EXPECT_TRUE(std::regex_match(t, std::regex("[0-9]{10}\\.[0-9]{6}"))) << t;
    unsigned long long us = 1;
    EXPECT_TRUE(XTime::Now(&us));
    EXPECT_GT(us, 1600000000ULL * 1000000ULL);
    EXPECT_TRUE(XTime::Now(nullptr));

    // Before any Stop the span is 0; afterwards spans truncate.
    XTimer timer;
    EXPECT_EQ(timer.usecs(), 0u);
    timer.start_ = 1000;
    timer.stop_ = 1000 + 1999;
    EXPECT_EQ(timer.msecs(), 1u);
    timer.stop_ = 1000 + 1999999;
    EXPECT_EQ(timer.secs(), 1u);
    EXPECT_EQ(timer.msecs(), 1999u);
}
