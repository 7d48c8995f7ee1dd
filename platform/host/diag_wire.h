// What the diagnostics library and the modem's stand-in send each other on Linux, one structure a
// packet, packed and little-endian (docs/platform.md).
#pragma once

#include <cstdint>

inline constexpr char DIAG_WIRE_SOCKET[] = "/dev/socket/diag";
inline constexpr int DIAG_WIRE_PACKET_MAX = 65536;  // bytes, the kind included
inline constexpr int DIAG_WIRE_CODES_MAX = 64;

// The first byte of every packet.
enum diag_wire_kind : uint8_t {
    // modem to library
    DIAG_WIRE_HELLO = 0,   // u16 peripherals that support DCI; the first packet
    DIAG_WIRE_LOG = 1,     // a log packet, as the client gets it
    DIAG_WIRE_STATUS = 2,  // u32 status notification
    // library to modem
    DIAG_WIRE_REGISTER = 0x10,
    DIAG_WIRE_CONFIG = 0x11,
    DIAG_WIRE_RELEASE = 0x12,
};

struct __attribute__((packed)) diag_wire_register {
    uint8_t kind = DIAG_WIRE_REGISTER;
    uint8_t proc = 0;
    uint16_t peripherals = 0;
};

struct __attribute__((packed)) diag_wire_config {
    uint8_t kind = DIAG_WIRE_CONFIG;
    uint8_t set = 0;  // 1: stream these, 0: no longer
    uint16_t count = 0;
    uint16_t codes[DIAG_WIRE_CODES_MAX] = {};  // so many of them are sent
};

struct __attribute__((packed)) diag_wire_release {
    uint8_t kind = DIAG_WIRE_RELEASE;
};

// How the stand-in's log packets begin.
struct __attribute__((packed)) diag_packet_header {
    uint16_t length = 0;  // bytes of the packet, this header included
    uint16_t code = 0;
    uint64_t time_stamp = 0;
    uint32_t sequence = 0;  // 1, 2, 3, ... over all codes
};
static_assert(sizeof(diag_packet_header) == 16);
