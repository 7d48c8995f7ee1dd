// The phone's clocks are the kernel's.
#include "platform/clock.h"

#include <errno.h>

int platform_clock_gettime(clockid_t clock, timespec* now) {
    return clock_gettime(clock, now);
}

int platform_poll(pollfd* fds, nfds_t count, int64_t timeout_ms) {
    if (timeout_ms < 0) return ppoll(fds, count, nullptr, nullptr);
    const timespec timeout = {
        .tv_sec = static_cast<time_t>(timeout_ms / 1000),
        .tv_nsec = static_cast<long>(timeout_ms % 1000 * 1000000),
    };
    return ppoll(fds, count, &timeout, nullptr);
}
