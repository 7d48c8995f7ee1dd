// Bytes between a test's strings and the daemon's functions.
#pragma once

#include <cstdint>
#include <string>

#include "base/owned_bytes.h"

inline const uint8_t* raw(const std::string& bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

inline std::string text(const owned_bytes& block) {
    return {reinterpret_cast<const char*>(block.bytes.get()), block.length};
}
