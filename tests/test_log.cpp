// The log line form, the mask gates, VCI_Debug and the application's log function. (The stamp's clock is every log line's.)
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "utils.h"
#include "vexlo_ext.h"

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

// Three destinations, each a function with its own user pointer; one thread switches between them
// while three others log: every line reaches a function with that function's own pointer.
static std::atomic<long> g_lines[3], g_mixed[3];
template <int K>
static void ToDest(void* user, int, const char*) {
    ++g_lines[K];
    g_mixed[K] += user != &g_lines[K];
}

TEST(Log, FunctionAndUserPointerChangeTogether) {
    const vexlo_log_fn fns[3] = {ToDest<0>, ToDest<1>, ToDest<2>};
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers(3);
    for (std::thread& t : loggers) t = std::thread([&] { while (!stop) XWRN("line\n"); });
    // Switched on until every destination has had its lines, however the loggers are scheduled.
    for (unsigned i = 0; i < 300000 || !g_lines[0] || !g_lines[1] || !g_lines[2]; ++i)
        vexlo_set_log(fns[i % 3], &g_lines[i % 3]);
    stop = true;
    for (std::thread& t : loggers) t.join();
    vexlo_set_log(nullptr, nullptr);
    EXPECT_EQ(g_mixed[0] + g_mixed[1] + g_mixed[2], 0);
}
