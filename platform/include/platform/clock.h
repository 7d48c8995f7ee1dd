// The phone's clocks. All time that the daemon reads, and every wait that can time out, goes
// through here, so that on Linux the clock can start at another time, run faster and jump
// (docs/platform.md).
#pragma once

#include <poll.h>
#include <time.h>

#include <cstdint>

// Reads CLOCK_REALTIME, CLOCK_MONOTONIC or CLOCK_BOOTTIME into *now.
// Returns 0, or -1 with errno set. Async-signal-safe; any thread.
int platform_clock_gettime(clockid_t clock, timespec* now);

// As poll(2), but timeout_ms (milliseconds, negative: no limit) runs on the platform's monotonic
// clock. Returns the number of ready descriptors, 0 when the time has passed, or -1 with errno set
// (EINTR when a signal handler ran). With count 0 it is a plain sleep. Any thread.
int platform_poll(pollfd* fds, nfds_t count, int64_t timeout_ms);

// The same until the wall clock reads real_ms (milliseconds since 1970) or later, also when it is
// set meanwhile.
int platform_poll_until(pollfd* fds, nfds_t count, int64_t real_ms);
