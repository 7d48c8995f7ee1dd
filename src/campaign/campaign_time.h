// Moments, as the rules use and log them.
#pragma once

#include <ctime>

#include "framework/time/clock.h"
#include "framework/time/local_time.h"

inline time_t wall_clock_s() {
    return static_cast<time_t>(vexastats_real_time_ms() / 1000);
}

inline tm local_time(time_t now) {
    tm local = {};
    (void)vexastats_local_time(now, &local);
    return local;
}

// "Sun Nov 22 10:00:00 2026" and a newline; nothing for a year that cannot be written so.
struct time_text {
    explicit time_text(const tm& local) {
        if (!asctime_r(&local, text)) text[0] = '\0';
    }
    char text[64];
};
