// The one place where the daemon's threads wait. Every wait ends when its stop flag is raised or
// the flag's descriptor readable, also when that happens between the caller's test and the wait.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "framework/time/stop.h"

// Most descriptors that one call can watch.
inline constexpr size_t VEXASTATS_POLL_MAX_FDS = 11;

// As poll(2) on `count` descriptors for at most timeout_ms (negative: no limit), on the platform's
// clock. Returns the number of ready descriptors (their revents filled), 0 on time-out, -EINTR once
// `stop` is raised, or another negative errno. A signal handler that ran does not end the wait.
int vexastats_poll(pollfd* fds, size_t count, int64_t timeout_ms, const stop_flag& stop);

// The same until the wall clock reads real_ms (milliseconds since 1970), also when it is set
// meanwhile.
int vexastats_poll_until(pollfd* fds, size_t count, int64_t real_ms, const stop_flag& stop);

// Sleeps. Returns false when `stop` ended it early.
bool vexastats_sleep_ms(int64_t ms, const stop_flag& stop);

// The pauses between attempts at something that may fail for long, as storage does that is full.
struct growing_pause {
    static constexpr int64_t FIRST_MS = 1000;
    static constexpr int64_t LONGEST_MS = 60000;
    int64_t next_ms = FIRST_MS;
};

// Sleeps for the next of them; the one after that is twice as long, up to the longest. Returns
// false when `stop` ended it early.
bool vexastats_sleep_longer(growing_pause* pause, const stop_flag& stop);

// Waits until `fd` is readable, then reads once. Returns what read(2) does, with errno EINTR and -1
// once `stop` is raised.
ssize_t vexastats_read_fd(int fd, void* buf, size_t size, const stop_flag& stop);
