// The fault matrix: each row scripts a fault into the simulated adapter, then makes a call and
// checks what the application gets. The rows run in order on one open adapter, whose channel 0 is
// in reset mode with registers 0x0D, 0x0E and 0x0F set to values unlike any other register's.
#include <functional>

#include "LibFixture.h"

namespace {

struct FaultRow {
    const char* fault;
    const char* call;
    std::function<void(vs::SimDevice&)> inject, check;  // the fault; the call and what it gives
};

// One register read answered `ms` late: past the library's wait of 1000 ms, or about at its end.
std::function<void(vs::SimDevice&)> LateRead(unsigned ms) {
    return [ms](vs::SimDevice& sim) {
        unsigned char reg[1] = {0x0E};
        sim.SetDelay(ms);
        VCI_GetReference(kType, 0, 0, 1, reg);
        sim.SetDelay(0);
    };
}

// `n` register reads of channel 0 that must each return their own register's value.
std::function<void(vs::SimDevice&)> OwnValues(int n) {
    return [n](vs::SimDevice& sim) {
        const unsigned char regs[5] = {0x0D, 0x00, 0x0F, 0x02, 0x0E};
        for (int i = 0; i < n; ++i) {
            unsigned char reg[1] = {regs[i % 5]};
            ASSERT_EQ(VCI_GetReference(kType, 0, 0, 1, reg), 1u) << i;
            ASSERT_EQ(reg[0], sim.Channel(0).regs[regs[i % 5]]) << i;
        }
    };
}

const FaultRow kRows[] = {
    {"register read answered 1300 ms late", "transmit of 3 frames, none accepted: 0", LateRead(1300),
     [](vs::SimDevice& sim) {
         CAN_OBJ f[3] = {};
         sim.SetTxAccept(0);
         EXPECT_EQ(VCI_Transmit(kType, 0, 0, f, 3), 0u);
     }},
    {"register read answered 1300 ms late", "30 register reads: their own values", LateRead(1300), OwnValues(30)},
    {"register read answered 1300 ms late", "status snapshot: the registers' values", LateRead(1300),
     [](vs::SimDevice&) {
         CAN_STAT st;
         ASSERT_EQ(VCI_ReadCANStatus(kType, 0, 0, &st), 1u);
         EXPECT_EQ(st.RegErrWarnLimit << 16 | st.RegRxErrCount << 8 | st.RegTxErrCount, 0x612233);
     }},
    // The late answer lands about when the next call forgets earlier answers and sends.
    {"register read answered 1002 ms late", "5 register reads: their own values", LateRead(1002), OwnValues(5)},
};

}  // namespace

using FaultTest = LibTest;

TEST_F(FaultTest, FaultMatrix) {
    ASSERT_EQ(VCI_OpenDevice(kType, 0, 0), 1u);
    unsigned char set[3][2] = {{0x0D, 0x61}, {0x0E, 0x22}, {0x0F, 0x33}};
    for (auto& s : set) ASSERT_EQ(VCI_SetReference(kType, 0, 0, 1, s), 1u);
    for (const FaultRow& row : kRows) {
        SCOPED_TRACE(std::string(row.fault) + ", then " + row.call);
        row.inject(Sim());
        row.check(Sim());
        Sim().ClearFaults();
    }
}
