// The transfer object without a device: buffers, capture and the record it fills.
#include <gtest/gtest.h>

#include <cstring>

#include "CanXfer.h"
#include "support/LogCapture.h"

static void Complete(CanXfer& x, U8* bytes, int n) {
    x.GetXfer()->buffer = bytes;
    x.GetXfer()->actual_length = n;
}

TEST(Xfer, CaptureGrowsNeverShrinksAndCopiesOnlyWhenAsked) {
    CanXfer x;
    ASSERT_NE(x.GetXfer(), nullptr);
    x.Init(nullptr, 0x01, 0);
    EXPECT_EQ(x.GetData(), nullptr);
    x.Init(nullptr, 0x81, 4);
    EXPECT_EQ(x.buffer_.size(), 4u);
    U8 long_ack[10];
    for (int i = 0; i < 10; ++i) long_ack[i] = static_cast<U8>(0x10 + i);
    Complete(x, long_ack, 10);
    x.Capture(true);
    EXPECT_EQ(x.GetSize(), 10u);
    ASSERT_EQ(x.data_.size(), 10u);
    EXPECT_EQ(memcmp(x.GetData(), long_ack, 10), 0);

    // A shorter one overwrites only its own count at the front.
    U8 short_ack[3] = {1, 2, 3};
    Complete(x, short_ack, 3);
    x.Capture(true);
    EXPECT_EQ(x.GetSize(), 3u);
    EXPECT_EQ(x.data_.size(), 10u);
    EXPECT_EQ(x.GetData()[2], 3);
    EXPECT_EQ(x.GetData()[3], 0x13);

    // Zero bytes: the count is 0, the area untouched, but a completion was captured.
    x.ClrSize();
    EXPECT_FALSE(x.Captured());
    Complete(x, short_ack, 0);
    x.Capture(true);
    EXPECT_EQ(x.GetSize(), 0u);
    EXPECT_TRUE(x.Captured());
    EXPECT_EQ(x.GetData()[0], 1);

    // Without copy only the count is recorded.
    U8 other[5] = {9, 9, 9, 9, 9};
    Complete(x, other, 5);
    x.Capture(false);
    EXPECT_EQ(x.GetSize(), 5u);
    EXPECT_EQ(x.GetData()[0], 1);
}

static void NoCallback(libusb_transfer*) {}

TEST(Xfer, SetupFillsTheRecordAndTracesSignedTimeout) {
    LogCapture cap;
    VCI_Debug(XLOG_XFER);
    CanXfer x;
    x.Init(nullptr, 0x82, 1024);
    x.Setup(NoCallback, 0xFFFFFFFFu);
    EXPECT_EQ(x.GetXfer()->timeout, 0xFFFFFFFFu);  // the rest of the record every transfer relies on
    U8 pkt[5];
    x.Setup(pkt, 5, NoCallback, 1000);
    // Not in flight: cancel yields libusb's "not found" and nothing else.
    EXPECT_EQ(x.Cancel(), LIBUSB_ERROR_NOT_FOUND);
    VCI_Debug(0);
    std::string text = cap.Take();
    EXPECT_NE(text.find(">: *** ep=0x82, size=0x0400, timeout=-1\n"), std::string::npos) << text;
    EXPECT_NE(text.find(">: *** ep=0x82, size=0x0005, timeout=1000\n"), std::string::npos) << text;
    EXPECT_NE(text.find(">: +++ ep=0x82, bufsz=0x0400(1024)\n"), std::string::npos) << text;
}
