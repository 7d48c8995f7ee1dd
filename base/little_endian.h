// Writing the packed little-endian integers of which sample records consist.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Writes `value` at `out`, lowest byte first, and returns the place behind it.
template <class T>
uint8_t* put_le(uint8_t* out, T value) {
    static_assert(std::is_integral_v<T>);
    const auto bits = static_cast<std::make_unsigned_t<T>>(value);
    for (size_t i = 0; i < sizeof(T); ++i) out[i] = static_cast<uint8_t>(bits >> (8 * i));
    return out + sizeof(T);
}
