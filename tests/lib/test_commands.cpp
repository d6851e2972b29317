// Every command call: the packets it sends byte for byte, what it takes from the answers, and how
// it judges acknowledgements that are wrong, short, missing or never asked for.
#include <cstring>

#include "LibFixture.h"
#include "usb/SimTestbed.h"

using CommandTest = LibTest;

static const char* kInitSig = "unsigned int VCI_InitCAN(unsigned int, unsigned int, unsigned int, CAN_INIT*)";
static const char* kStartSig = "unsigned int VCI_StartCAN(unsigned int, unsigned int, unsigned int)";
static const char* kRefSig =
    "unsigned int VCI_GetReference(unsigned int, unsigned int, unsigned int, unsigned int, void*)";

TEST_F(CommandTest, ChannelCommandsSendTheirPackets) {
    ASSERT_EQ(VCI_OpenDevice(kType, 0, 0), 1u);
    Sim().ClearSent();
    CAN_INIT init = {};
    init.AcceptCode = 0x80000000;
    init.AcceptMask = 0xFFFFFFFF;
    init.FilterMode = 1;
    init.BusTiming0 = 0x00;
    init.BusTiming1 = 0x1C;
    EXPECT_EQ(VCI_InitCAN(kType, 0, 1, &init), 1u);
    init.ListenOnly = 2;  // any non-zero value sets the flag
    init.FilterMode = 0;
    init.AcceptCode = 0x01020304;
    init.AcceptMask = 0x0A0B0C0D;
    EXPECT_EQ(VCI_InitCAN(kType, 0, 0, &init), 1u);
    EXPECT_EQ(VCI_StartCAN(kType, 0, 1), 1u);
    EXPECT_EQ(VCI_ResetCAN(kType, 0, 0), 1u);
    EXPECT_EQ(Sim().Sent(vs::kEpCmdOut),
              (std::vector<vs::Bytes>{
                  Pkt({0x12, 0x03, 0x04, 0x00, 0x10, 0x00, 0x1C}),
                  Pkt({0x12, 0x04, 0x0A, 0x00, 0x50, 0x80, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}),
                  Pkt({0x12, 0x03, 0x04, 0x00, 0x80, 0x00, 0x1C}),
                  Pkt({0x12, 0x04, 0x0A, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x0A, 0x0B, 0x0C, 0x0D}),
                  Pkt({0x12, 0x0E, 0x02, 0x00, 0x10}),
                  Pkt({0x12, 0x0F, 0x12, 0x00, 0x00}),
              }));
}

TEST_F(CommandTest, RegistersReadWriteAndStatusSnapshot) {
    OpenAndStart();
    Sim().ClearSent();
    unsigned char ref[2] = {0x0E, 0};
    ASSERT_EQ(VCI_GetReference(kType, 0, 1, 1, ref), 1u);
    EXPECT_EQ(ref[0], Sim().Channel(1).regs[0x0E]);
    unsigned char set[2] = {0x0D, 0x60};
    ASSERT_EQ(VCI_SetReference(kType, 0, 0, 1, set), 1u);
    EXPECT_EQ(Sim().Sent(vs::kEpCmdOut), (std::vector<vs::Bytes>{Pkt({0x12, 0x0D, 0x03, 0x00, 0x10, 0x0E}),
                                                                 Pkt({0x12, 0x0C, 0x04, 0x00, 0x00, 0x0D, 0x60})}));

    Sim().ClearSent();
    CAN_STAT stat;
    memset(&stat, 0xCC, sizeof(stat));
    ASSERT_EQ(VCI_ReadCANStatus(kType, 0, 1, &stat), 1u);
    std::vector<vs::Bytes> sent = Sim().Sent(vs::kEpCmdOut);
    ASSERT_EQ(sent.size(), 8u);
    const int order[7] = {0x00, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x02};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(sent[i], Pkt({0x12, 0x0D, 0x03, 0x00, 0x10, order[i]})) << i;
    EXPECT_EQ(sent[7], Pkt({0x12, 0x06, 0x02, 0x00, 0x10}));
    vs::SimChannelInfo info = Sim().Channel(1);
    EXPECT_EQ(stat.Reserved0, 0);
    EXPECT_EQ(stat.RegMode, info.regs[0x00]);
    EXPECT_EQ(stat.RegErrWarnLimit, 96);
    EXPECT_EQ(stat.RegRxErrCount, info.regs[0x0E]);
    EXPECT_EQ(stat.RegTxErrCount, info.regs[0x0F]);
    EXPECT_EQ(stat.RegStatus & 0x80, 0);  // not bus-off
    EXPECT_LE(stat.CounterPercent, 100u);
    // A busy bus gives a percentage above zero: a generator keeps channel 0's bus loaded.
    vs::SimGenConfig gen;
    gen.dlc = 8;
    Sim().StartGenerator(0, gen);
    usleep(200000);
    ASSERT_EQ(VCI_ReadCANStatus(kType, 0, 0, &stat), 1u);
    EXPECT_GT(stat.CounterPercent, 0u);
    EXPECT_LE(stat.CounterPercent, 100u);
}

// The line numbers of the DBG lines of the function `sig`, in order.
static std::vector<std::string> LineNos(const std::string& log, const std::string& sig) {
    std::regex re(": vexlo: DBG: " + std::regex_replace(sig, std::regex(R"([()*])"), R"(\$&)") + "<([0-9]+)>");
    std::vector<std::string> out;
    for (std::sregex_iterator it(log.begin(), log.end(), re), end; it != end; ++it) out.push_back((*it)[1]);
    return out;
}

TEST_F(CommandTest, TracesAndDumpsUnderTheirMasks) {
    OpenAndStart();
    CAN_STAT stat;
    VCI_Debug(0x1);
    Capture();
    ASSERT_EQ(VCI_ReadCANStatus(kType, 0, 1, &stat), 1u);
    std::string log = Log();
    VCI_Debug(0);
    const char* statSig = "unsigned int VCI_ReadCANStatus(unsigned int, unsigned int, unsigned int, CAN_STAT*)";
    EXPECT_EQ(CountLines(log, LogLine("DBG", statSig, "+++ Type=4, Card=0, Port=1")), 1) << log;
    EXPECT_EQ(CountLines(log, LogLine("DBG", statSig, "--- ret=1")), 1);
    EXPECT_EQ(CountLines(log, LogLine("DBG", kRefSig, "--- ret=1")), 7);
    EXPECT_EQ(CountLines(log, LogLine("DBG", "int CanDev::Cmd(U8*, U32, U8*, U32*, U32)", "xfer(cmd): size=6")), 7);

    gdbg = 0x10;
    unsigned char ref[1] = {0x0E};
    Capture();
    ASSERT_EQ(VCI_GetReference(kType, 0, 1, 1, ref), 1u);
    log = Log();
    gdbg = 0;
    const char* cmdSig = "int CanDev::Cmd(U8*, U32, U8*, U32*, U32)";
    EXPECT_EQ(CountLines(log, LogLine("DBG", cmdSig, "cmd: 12 0d 03 00 10 0e ")), 1) << log;
    EXPECT_EQ(CountLines(log, std::regex(".*<[0-9]+>: ack: 12 0d 8. .. .. .*")), 1) << log;
    // The init call traces its configuration.
    CAN_INIT init = {};
    init.AcceptCode = 0x12345678;
    init.AcceptMask = 0xFFFFFFFF;
    init.BusTiming0 = 0x03;
    init.BusTiming1 = 0x1C;
    VCI_Debug(1);
    Capture();
    ASSERT_EQ(VCI_InitCAN(kType, 0, 0, &init), 1u);
    log = Log();
    VCI_Debug(0);
    EXPECT_EQ(CountLines(log, LogLine("DBG", kInitSig,
                                      "ACC=0x12345678, ACM=0xffffffff, AFM=0x00, T0=0x03, T1=0x1c, LOM=0x00")),
              1)
        << log;
    // The controller shows the timing bytes programmed at registers 0x06 and 0x07.
    unsigned char btr[2][1] = {{0x06}, {0x07}};
    ASSERT_EQ(VCI_GetReference(kType, 0, 0, 1, btr[0]) + VCI_GetReference(kType, 0, 0, 1, btr[1]), 2u);
    EXPECT_EQ((std::vector<int>{btr[0][0], btr[1][0]}), (std::vector<int>{0x03, 0x1C}));

    // Open, start, read, close at masks 0x1 and 0x2. The event thread fills both IN records before
    // it submits either; an answer is captured before its transfer is armed again. Close runs once,
    // so it cancels the data IN transfer once.
    ASSERT_EQ(VCI_CloseDevice(kType, 0), 1u);
    VCI_Debug(0x3);
    Capture();
    ASSERT_EQ(VCI_OpenDevice(kType, 0, 0), 1u);
    ASSERT_EQ(VCI_StartCAN(kType, 0, 0), 1u);
    ASSERT_EQ(VCI_GetReference(kType, 0, 0, 1, ref), 1u);
    ASSERT_EQ(VCI_CloseDevice(kType, 0), 1u);
    log = Log();
    VCI_Debug(0);
    std::regex arm("CanXfer::(Setup|Submit|Capture)[^>]*>: \\*\\*\\* ep=0x8[12]");
    std::string seq;
    for (std::sregex_iterator it(log.begin(), log.end(), arm), end; it != end; ++it) seq += (*it).str().substr(9, 3);
    EXPECT_EQ(seq.substr(0, 18), "SetSetSubSubCapSub") << log;
    EXPECT_EQ(CountLines(log, LogLine("DBG", "void CanDev::Close()", "+++")), 1) << log;
    EXPECT_EQ(CountLines(log, LogLine("DBG", "int CanXfer::Cancel()", "*** ep=0x82")), 1) << log;
    for (std::string sig : {kStartSig, kRefSig, "unsigned int VCI_ResetCAN(unsigned int, unsigned int, unsigned int)"}) {
        std::vector<std::string> n = LineNos(log, sig);
        ASSERT_GE(n.size(), 2u) << sig;
        EXPECT_NE(n.front(), n.back()) << sig;
    }
}
