// The clock model against an adapter simulated here: frames at known host times, stamped by an
// adapter crystal that may run fast or slow, handed over in completions that come a varying
// latency after their newest frame. Every time must be at most the completion's, never below the
// channel's previous one, and within a bound of the frame's true time.
#include <gtest/gtest.h>

#include "CanClock.h"

namespace {

// A row: the adapter's count at the first frame, its crystal's error, the frames' period, frames
// per completion (channels alternating), completions; before completion `at` an event (a silence
// of `us`, the adapter restarting its count, or the host clock stepped by `us`); the bound on
// |time - true time|.
enum { kSilence, kRestart, kStep };
struct ClockRow {
    const char* name;
    U64 count0;
    double ppm;
    unsigned period_us, per, completions, at, event;
    long long us, bound_us;
};

const ClockRow kRows[] = {
    {"counter_wrap", (1ull << 32) - 20, 0, 1000, 2, 200, 0, kSilence, 0, 1000},
    {"three_day_silence", 5000, 0, 1000, 2, 200, 100, kSilence, 259200000000ll, 1000},  // three days
    // Its newest frame gets the completion's time, 0.2 ms late: the others keep the spacing exactly.
    {"first_batch_1ms_apart", 0, 0, 1000, 5, 1, 0, kSilence, 0, 200},
    {"fast_200ppm_two_hours", 7, 200, 10000, 2, 720000, 0, kSilence, 0, 1100},
    {"slow_200ppm_two_hours", 7, -200, 10000, 2, 720000, 0, kSilence, 0, 1100},
    {"adapter_restarts", 90000000, 0, 1000, 2, 400, 200, kRestart, 0, 1000},
    // The one case where times go back: the host clock does.
    {"host_clock_stepped_back", 0, 0, 1000, 2, 400, 200, kStep, -3600000000ll, 1000},
};

class ClockTest : public ::testing::TestWithParam<ClockRow> {};

TEST_P(ClockTest, TimesFollowTheHostClock) {
    const ClockRow& row = GetParam();
    CanClock clock;
    U64 host = 1700000000000000ull, last[2] = {0, 0};  // true host time of the latest frame
    double adapter = static_cast<double>(row.count0) * 100;  // the adapter's own microseconds
    long long worst = 0, ahead = 0, back = 0;
    for (unsigned c = 0; c < row.completions; ++c) {
        if (c == row.at && c) {
            host += static_cast<U64>(row.us);
            adapter = row.event == kRestart ? 0 : adapter + (row.event == kSilence) * row.us * (1 + row.ppm * 1e-6);
            if (row.event == kStep) last[0] = last[1] = 0;
        }
        U64 truth[8], stamp[8];
        for (unsigned j = 0; j < row.per; ++j) {
            truth[j] = host += row.period_us;
            stamp[j] = static_cast<U64>((adapter += row.period_us * (1 + row.ppm * 1e-6)) / 100);
        }
        const U64 done = host + 200 + (c * 7919u) % 700;  // the completion, 0.2 to 0.9 ms later
        clock.Begin(done, static_cast<U32>(stamp[row.per - 1]));
        for (unsigned j = 0; j < row.per; ++j) {
            const U64 t = clock.Map(static_cast<U32>(stamp[j]), j % 2);
            ahead += t > done;
            back += t < last[j % 2];
            last[j % 2] = t;
            worst = std::max(worst, std::abs(static_cast<long long>(t - truth[j])));
        }
    }
    EXPECT_EQ(ahead, 0);
    EXPECT_EQ(back, 0);
    EXPECT_LE(worst, row.bound_us);
}

INSTANTIATE_TEST_SUITE_P(Clock, ClockTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<ClockRow>& r) { return std::string(r.param.name); });

}  // namespace
