// Clock readings in milliseconds, from the platform's clocks. Any thread.
#pragma once

#include <cstdint>

// First moment that counts as a plausible wall clock (2017-01-01 00:00:00 UTC) in ms since 1970.
inline constexpr uint64_t PLAUSIBLE_REAL_TIME_MS = 1483228800000;

constexpr uint64_t minutes_ms(uint64_t minutes) {
    return minutes * 60 * 1000;
}
constexpr uint64_t days_ms(uint64_t days) {
    return days * 24 * minutes_ms(60);
}

uint64_t vexastats_mono_time_ms();  // monotonic clock, stands still in suspend
uint64_t vexastats_uptime_ms();     // boot-time clock, counts suspend
uint64_t vexastats_real_time_ms();  // wall clock, ms since 1970

// Minutes that local time is ahead of UTC now, truncated; 0 with error "%s: failed to get
// localtime\n" when the local time cannot be had.
int16_t vexastats_timezone_min();
