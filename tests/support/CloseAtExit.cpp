// Linked into every integration test program: after its cases, every device they left open is
// closed, as an application closes what it opened. Without it the event thread of a device whose
// adapter went away with the case's testbed would end unjoined (the thread sanitizer reports it).
#include <gtest/gtest.h>

#include "vexlo.h"

namespace {

class CloseAtExit : public ::testing::Environment {
public:
    void TearDown() override {
        // The indexes the cases use: 0 to 63, and 65536 (an index above 16 bits).
        for (unsigned index = 0; index < 64; ++index) VCI_CloseDevice(4, index);
        VCI_CloseDevice(4, 65536);
    }
};

const ::testing::Environment* const g_close_at_exit = ::testing::AddGlobalTestEnvironment(new CloseAtExit);

}  // namespace
