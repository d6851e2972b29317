#include "LibFixture.h"

#include <sstream>

void LibTest::OpenAndStart(unsigned index) {
    ASSERT_EQ(VCI_OpenDevice(kType, index, 0), 1u);
    CAN_INIT init = {};
    init.AcceptMask = 0xFFFFFFFF;
    init.FilterMode = 1;
    init.BusTiming0 = 0x00;
    init.BusTiming1 = 0x14;
    for (unsigned ch = 0; ch < 2; ++ch) {
        ASSERT_EQ(VCI_InitCAN(kType, index, ch, &init), 1u);
        ASSERT_EQ(VCI_StartCAN(kType, index, ch), 1u);
    }
}

int CountLines(const std::string& text, const std::regex& re) {
    std::istringstream in(text);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) n += std::regex_match(line, re) ? 1 : 0;
    return n;
}

vs::Bytes Pkt(std::initializer_list<int> bytes) {
    vs::Bytes b;
    for (int x : bytes) b.push_back(static_cast<uint8_t>(x));
    return b;
}

std::vector<std::string> Problems(const std::string& text) {
    static const std::regex re("[0-9.]+: vexlo: (WRN|ERR): (.*)<[0-9]+>: (.*)");
    std::istringstream in(text);
    std::string line;
    std::vector<std::string> out;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_match(line, m, re)) out.push_back(m[1].str() + " " + m[2].str() + ": " + m[3].str());
    }
    return out;
}
