// The fault matrix: each row scripts a fault into the simulated adapter, then makes a call and
// checks what the application gets. The rows run in order on one open adapter whose channel 0 is
// in reset mode with registers 0x0D, 0x0E and 0x0F set to values unlike any other register's.
#include <cstring>
#include <functional>

#include "LibFixture.h"

namespace {

using Adapter = vs::SimDevice;

struct FaultRow {
    const char* fault;
    const char* call;
    std::function<void(Adapter&)> inject;  // makes the fault happen
    std::function<void(Adapter&)> check;   // the call, and what it must give
};

// One register read answered `ms` late: past the library's wait of 1000 ms, or about at its end.
std::function<void(Adapter&)> LateRead(unsigned ms) {
    return [ms](Adapter& sim) {
        sim.SetDelay(ms);
        unsigned char reg[1] = {0x0E};
        VCI_GetReference(kType, 0, 0, 1, reg);
        sim.SetDelay(0);
    };
}

// Register reads, each of which must return its own register's value.
void ReadsGetTheirOwn(Adapter& sim, int n) {
    const unsigned char regs[5] = {0x0D, 0x00, 0x0F, 0x02, 0x0E};
    for (int i = 0; i < n; ++i) {
        unsigned char reg[1] = {regs[i % 5]};
        ASSERT_EQ(VCI_GetReference(kType, 0, 0, 1, reg), 1u) << "read " << i;
        ASSERT_EQ(reg[0], sim.Channel(0).regs[regs[i % 5]]) << "read " << i;
    }
}

const FaultRow kRows[] = {
    {"register read answered 1300 ms late", "transmit of 3 frames, none accepted: 0", LateRead(1300),
     [](Adapter& sim) {
         sim.SetTxAccept(0);
         CAN_OBJ f[3] = {};
         EXPECT_EQ(VCI_Transmit(kType, 0, 0, f, 3), 0u);
         sim.SetTxAccept(-1);
     }},
    {"register read answered 1300 ms late", "30 register reads", LateRead(1300),
     [](Adapter& sim) { ReadsGetTheirOwn(sim, 30); }},
    {"register read answered 1300 ms late", "status snapshot", LateRead(1300),
     [](Adapter& sim) {
         CAN_STAT stat;
         ASSERT_EQ(VCI_ReadCANStatus(kType, 0, 0, &stat), 1u);
         vs::SimChannelInfo ch = sim.Channel(0);
         const unsigned char want[7] = {ch.regs[0x00], ch.regs[0x02], ch.regs[0x0B], ch.regs[0x0C],
                                        ch.regs[0x0D], ch.regs[0x0E], ch.regs[0x0F]};
         EXPECT_EQ(memcmp(&stat.RegMode, want, 7), 0);
     }},
    // The late answer lands about when the next call forgets earlier answers and sends.
    {"register read answered 1000 ms late", "5 register reads", LateRead(1000),
     [](Adapter& sim) { ReadsGetTheirOwn(sim, 5); }},
    {"register read answered 1002 ms late", "5 register reads", LateRead(1002),
     [](Adapter& sim) { ReadsGetTheirOwn(sim, 5); }},
    {"register read answered 1005 ms late", "5 register reads", LateRead(1005),
     [](Adapter& sim) { ReadsGetTheirOwn(sim, 5); }},
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
