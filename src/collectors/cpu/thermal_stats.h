// The phone's thermal zones.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/grow_array.h"

// Stands for a temperature that is no number.
inline constexpr int32_t TEMPERATURE_INVALID = static_cast<int32_t>(0xDEADBEEF);

struct thermal_zone {
    size_t name_at = 0;  // of its zero-terminated type text, in the list's names
    size_t name_len = 0;
    int32_t temperature = TEMPERATURE_INVALID;  // as printed by the kernel, mostly 1/1000 degree C
};

// The zones in directory order; at most 65535, the most that a sample can count.
struct thermal_list {
    grow_array<thermal_zone> zones{};
    grow_array<char> names{};
};

// Reads all zones of "/sys/class/thermal"; one that cannot be read is left out. Returns 0, or
// -EINVAL or -ENOMEM with an empty list. All failures are logged. Thread: the collector's.
int get_thermal_stats(thermal_list* list);

// Appends a zone. Returns 0 or -ENOMEM, logged.
int thermal_list_add(thermal_list* list, const char* type, size_t type_len, int32_t temperature);
