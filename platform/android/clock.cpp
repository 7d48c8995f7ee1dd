// The phone's clocks are the kernel's.
#include "platform/clock.h"

#include <errno.h>
#include <sys/timerfd.h>

#include <algorithm>

#include "base/unique_handle.h"

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

namespace {

// How often the wall clock is looked at when no timer can be had.
constexpr int64_t UNTIMED_LOOK_MS = 1000;

int64_t real_now_ms() {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Out of descriptors or memory, which is nobody's fault who only waits.
int poll_until_untimed(pollfd* fds, nfds_t count, int64_t real_ms) {
    for (;;) {
        const int64_t left_ms = std::max<int64_t>(real_ms - real_now_ms(), 0);
        const int ready = platform_poll(fds, count, std::min(left_ms, UNTIMED_LOOK_MS));
        if (ready != 0 || left_ms == 0) return ready;
    }
}

}  // namespace

int platform_poll_until(pollfd* fds, nfds_t count, int64_t real_ms) {
    constexpr nfds_t MAX_FDS = 63;
    if (count > MAX_FDS) {
        errno = EINVAL;
        return -1;
    }
    // The kernel's timer follows the wall clock when it is set. A time of 0 would disarm it.
    const int64_t end_ms = std::max<int64_t>(real_ms, 1);
    const itimerspec end = {
        .it_interval = {},
        .it_value = {.tv_sec = static_cast<time_t>(end_ms / 1000),
                     .tv_nsec = static_cast<long>(end_ms % 1000 * 1000000)},
    };
    const unique_fd timer(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!timer) return poll_until_untimed(fds, count, real_ms);
    if (timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &end, nullptr) != 0) return -1;

    pollfd all[MAX_FDS + 1];
    std::copy_n(fds, count, all);
    all[count] = {.fd = timer.get(), .events = POLLIN, .revents = 0};
    int ready = ppoll(all, count + 1, nullptr, nullptr);
    if (ready > 0 && all[count].revents) --ready;
    std::copy_n(all, count, fds);
    return ready;
}
