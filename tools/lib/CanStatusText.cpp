#include "CanStatusText.h"

#include <cstdio>

namespace vexlo_tool {

std::string ErrorStateText(unsigned char status, unsigned char rx_errors, unsigned char tx_errors) {
    if (status & 0x80) return "bus-off";
    if (rx_errors >= 128 || tx_errors >= 128) return "error passive";
    if (status & 0x40) return "error warning";
    return "error active";
}

std::string VersionText(unsigned short version) {
    char text[16];
    std::snprintf(text, sizeof(text), "%x.%02x", version >> 8, version & 0xFF);
    return text;
}

std::string ErrorCodeText(unsigned char ecc) {
    static const char* const kTypes[] = {"bit error", "form error", "stuff error", "other error"};
    struct Segment {
        unsigned char code;
        const char* words;
    };
    // The frame segment codes of the controller's error code capture register, bits 4-0.
    static const Segment kSegments[] = {
        {0x03, "start of frame"},     {0x02, "identifier bits 28-21"}, {0x06, "identifier bits 20-18"},
        {0x04, "SRTR bit"},           {0x05, "IDE bit"},               {0x07, "identifier bits 17-13"},
        {0x0F, "identifier bits 12-5"}, {0x0E, "identifier bits 4-0"}, {0x0C, "RTR bit"},
        {0x0D, "reserved bit 1"},     {0x09, "reserved bit 0"},        {0x0B, "data length code"},
        {0x0A, "data field"},         {0x08, "CRC sequence"},          {0x18, "CRC delimiter"},
        {0x19, "acknowledge slot"},   {0x1B, "acknowledge delimiter"}, {0x1A, "end of frame"},
        {0x12, "intermission"},       {0x11, "active error flag"},     {0x16, "passive error flag"},
        {0x13, "tolerated dominant bits"}, {0x17, "error delimiter"},  {0x1C, "overload flag"},
    };
    std::string text = kTypes[ecc >> 6];
    text += (ecc & 0x20) ? " while receiving" : " while transmitting";
    for (const Segment& s : kSegments) {
        if (s.code == (ecc & 0x1F)) return text + ", in the " + s.words;
    }
    char other[32];
    std::snprintf(other, sizeof(other), ", in segment 0x%02X", ecc & 0x1F);
    return text + other;
}

}  // namespace vexlo_tool

namespace vexlo_tool {

std::string ErrorFrameText(const CAN_OBJ& frame) {
    static const char* const kClasses[] = {"tx-timeout", "lost-arbitration", "controller-problem",
                                           "protocol-violation", "transceiver-status", "no-acknowledgement-on-tx",
                                           "bus-off", "bus-error", "restarted-after-bus-off", "error-counter-tx-rx"};
    static const char* const kProblems[] = {"rx-overflow",      "tx-overflow",      "rx-error-warning",
                                            "tx-error-warning", "rx-error-passive", "tx-error-passive",
                                            "back-to-error-active"};
    std::string text;
    for (unsigned bit = 0; bit < 10; ++bit) {
        if (!(frame.Id & (1u << bit))) continue;
        text += (text.empty() ? "" : ",") + std::string(kClasses[bit]);
        if (bit == 1) {
            text += "{at bit " + std::to_string(frame.Data[0]) + "}";
        } else if (bit == 2) {
            std::string problems;
            for (unsigned p = 0; p < 7; ++p)
                if (frame.Data[1] & (1u << p)) problems += (problems.empty() ? "" : ",") + std::string(kProblems[p]);
            text += "{" + problems + "}";
        } else if (bit == 9) {
            text += "{{" + std::to_string(frame.Data[6]) + "}{" + std::to_string(frame.Data[7]) + "}}";
        }
    }
    return text;
}

}  // namespace vexlo_tool
