// Byte-level layout of what travels between host and adapter: endpoint numbers, command codes,
// little-endian helpers and the 19-byte record carried on the data endpoints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vexlo_sim {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kEpCmdOut = 0x01;
constexpr uint8_t kEpCmdIn = 0x81;
constexpr uint8_t kEpDataOut = 0x02;
constexpr uint8_t kEpDataIn = 0x82;
constexpr size_t kPacketSize = 64;   // full-speed bulk max packet
constexpr size_t kRecordSize = 19;
constexpr size_t kMaxMessage = 1023; // the host gathers at most this much per message
constexpr unsigned kChannels = 2;

// Command codes of packets on 0x01 (byte 1) and of their acknowledgements on 0x81.
enum SimCmd : uint8_t {
    kCmdHwVersion = 0x01,
    kCmdTiming = 0x03,
    kCmdFilter = 0x04,
    kCmdStatusCounters = 0x06,
    kCmdRegWrite = 0x0C,
    kCmdRegRead = 0x0D,
    kCmdStart = 0x0E,
    kCmdReset = 0x0F,
    kCmdFwVersion = 0x12,
    kCmdChannelCount = 0x13,
    kCmdSerial = 0x14,
    kCmdIdText = 0x15,
};

// Event codes of records on 0x82: 0 is a frame, the others are notices.
enum SimEvent : uint8_t {
    kEvFrame = 0x00,
    kEvOverrun = 0xE1,      // receive data overrun
    kEvWarning = 0xE2,      // an error counter reached the warning limit
    kEvPassive = 0xE3,      // error passive; data: error code capture, rx and tx counters
    kEvArbLost = 0xE4,      // arbitration lost; data: capture register
    kEvBusError = 0xE5,     // bus error
};

inline uint16_t GetLe16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t GetLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint32_t GetBe32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}
inline void PutLe16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline void PutLe32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// A CAN frame as the bus carries it.
struct SimFrame {
    uint32_t id = 0;      // right-aligned, 11 or 29 bits
    bool ext = false;
    bool rtr = false;
    uint8_t dlc = 0;      // 0..15 as carried in the frame information
    uint8_t data[8] = {};
    uint8_t mode = 0;     // transmit mode of a host frame: bit 0 single shot, bit 1 self reception
};

// One 19-byte record of the data endpoints, field by field.
struct SimRecord {
    uint32_t timestamp = 0;
    uint8_t event = 0;
    uint8_t mode = 0;
    uint8_t info = 0;     // bits 0-3 DLC, 4-5 channel, 6 RTR, 7 extended
    uint8_t raw[4] = {};  // identifier shifted (frames) or notice data (bytes 7..9)
    uint8_t data[8] = {};

    unsigned Channel() const { return (info >> 4) & 3; }
    void Encode(uint8_t* out) const;
    static SimRecord Decode(const uint8_t* in);

    // A frame record: identifier shifted left by 3 (extended) or 5 (standard).
    static SimRecord FromFrame(const SimFrame& f, unsigned channel, uint32_t timestamp);
    SimFrame ToFrame() const;
    // A notice record with up to three data bytes at record bytes 7, 8, 9.
    static SimRecord Notice(uint8_t code, unsigned channel, uint32_t timestamp, uint8_t d0 = 0,
                            uint8_t d1 = 0, uint8_t d2 = 0);
};

}  // namespace vexlo_sim
