// Battery and backlight, and the decision from the battery's charge when processes are reported.
// All functions: the collector's thread.
#pragma once

#include <cstdint>

// What stands in a sample for a value that could not be read: in the packed word capacity and
// brightness then show all their bits set.
inline constexpr int32_t CAPACITY_UNKNOWN = 127;
inline constexpr int32_t BRIGHTNESS_UNKNOWN = 1020;

struct power_values {
    int32_t charge_counter_uAh = 0;
    int32_t capacity_percent = CAPACITY_UNKNOWN;
    uint32_t charge_status = 0;  // number of chg_stat_txt_to_enum
    int32_t brightness = BRIGHTNESS_UNKNOWN;
};

// Reads what can be read; each failure is logged with the name of the sampling function.
power_values read_power_values(const char* caller);

// Bits 15..10: brightness bits 7..2; bits 9..3: capacity; bits 2..0: charge status.
uint16_t pack_power_word(const power_values& values);

// Decides which samples carry processes: one every three minutes, and each one while the battery is
// charging with 301 mA or more.
struct power_trigger {
    uint64_t counter_time_ms = 0;  // of the last charge counter, monotonic; 0: there was none
    int64_t counter_uAh = 0;
    uint64_t snapshot_time_ms = 0;  // of the last sample that carried processes
    bool snapshot = false;          // this sample carries them
};

// Sets trigger->snapshot for a sample taken at now_ms (monotonic clock).
void power_trigger_update(power_trigger* trigger, uint64_t now_ms, int32_t charge_counter_uAh);
