// Integration tests of the library: the real libvexlo over the real libusb against simulated
// adapters, one process per test case. The fixture builds the testbed before the library's first
// call and captures standard output, where the library writes its log.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "../support/LogLine.h"
#include "usb/SimTestbed.h"
#include "vexlo.h"

namespace vs = vexlo_sim;

// The device type the tests pass; the library only prints it (and treats 3 specially on close).
constexpr unsigned kType = 4;

class LibTest : public ::testing::Test {
protected:
    explicit LibTest(unsigned adapters = 1, const std::vector<vs::SimIdentity>& ids = {}) : bed_(adapters, ids) {}

    void SetUp() override {
        ASSERT_TRUE(bed_.Ok());
        gdbg = 0;
    }
    // Closes whatever the case left open while the testbed is still there (a close after it is
    // gone waits on an emulation that no longer answers), so no event thread outlives its case.
    void TearDown() override {
        Log();
        for (unsigned index : {0u, 1u, 2u, 65536u}) VCI_CloseDevice(kType, index);
        gdbg = 0;
    }

    vs::SimDevice& Sim(unsigned i = 0) { return bed_.Adapter(i); }

    // Standard output from now on is captured; Log() returns what was written since.
    void Capture() {
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        capturing_ = true;
    }
    std::string Log() {
        if (!capturing_) return std::string();
        fflush(stdout);
        capturing_ = false;
        return ::testing::internal::GetCapturedStdout();
    }

    // Opens index 0 and starts both channels at 1 Mbit/s, accepting everything.
    void OpenAndStart(unsigned index = 0);

    vs::SimTestbed bed_;
    bool capturing_ = false;
};

// The number of lines of `text` matching `re` (whole line).
int CountLines(const std::string& text, const std::regex& re);
// The packet as the host sent it, for comparisons.
vs::Bytes Pkt(std::initializer_list<int> bytes);
// Lines of the log with level WRN or ERR, in order, without their time stamps and line numbers.
std::vector<std::string> Problems(const std::string& text);
