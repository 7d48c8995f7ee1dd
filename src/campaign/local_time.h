// A moment in the local time zone, re-entrant.
#pragma once

#include <ctime>

#include "framework/time/local_time.h"

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
