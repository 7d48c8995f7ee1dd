// Messages as they travel between the daemon and the modem (docs/platform.md), written and read
// without the daemon's code.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class wire_kind : uint8_t { REQUEST = 0, RESPONSE = 1, INDICATION = 2 };

// `size` bytes of an integer, lowest first.
std::string wire_integer(uint64_t value, size_t size);
// A byte array: u16 count, then the bytes.
std::string wire_bytes(std::string_view bytes);

struct wire_field {
    uint8_t type = 0;
    std::string value{};
};

struct wire_message {
    wire_kind kind = wire_kind::REQUEST;
    uint16_t transaction = 0;
    uint16_t id = 0;
    std::vector<wire_field> fields{};

    bool has(uint8_t type) const;

    // The value of a field that must be there, as an integer of `size` bytes, or as a byte array of
    // at most `max` bytes. Throws std::runtime_error that says what is wrong.
    uint64_t integer(uint8_t type, size_t size) const;
    std::string bytes(uint8_t type, size_t max) const;
};

// Throws std::runtime_error when the packet is no message.
wire_message wire_parse(std::string_view packet);
std::string wire_compose(const wire_message& message);
