#define LOG_TAG "vexastatsd"

#include "framework/time/clock.h"

#include <time.h>

#include "framework/time/local_time.h"
#include "platform/clock.h"
#include "platform/log.h"

namespace {

uint64_t clock_ms(clockid_t clock) {
    timespec now = {};
    platform_clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace

uint64_t vexastats_mono_time_ms() {
    return clock_ms(CLOCK_MONOTONIC);
}

uint64_t vexastats_uptime_ms() {
    return clock_ms(CLOCK_BOOTTIME);
}

uint64_t vexastats_real_time_ms() {
    return clock_ms(CLOCK_REALTIME);
}

int16_t vexastats_timezone_min() {
    timespec now = {};
    platform_clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    if (!vexastats_local_time(now.tv_sec, &local)) {
        ALOGE("%s: failed to get localtime\n", __func__);
        return 0;
    }
    return static_cast<int16_t>(local.tm_gmtoff / 60);
}
