// A block of bytes on the heap, with its length.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/unique_handle.h"

struct owned_bytes {
    size_t length = 0;
    unique_malloc<uint8_t> bytes{};
};
