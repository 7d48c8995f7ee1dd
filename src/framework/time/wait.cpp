#include "framework/time/wait.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>

#include "framework/time/clock.h"
#include "framework/time/test_window.h"
#include "platform/clock.h"

namespace {

// Polls the caller's descriptors and the stop flag's with poll_all(fds, count) until it has an
// answer that no signal handler cut short.
template <class PollAll>
int poll_with_stop(pollfd* fds, size_t count, const stop_flag& stop, PollAll poll_all) {
    if (count > VEXASTATS_POLL_MAX_FDS) return -EINVAL;
    pollfd all[VEXASTATS_POLL_MAX_FDS + 1];
    std::copy_n(fds, count, all);
    all[count] = {.fd = stop.fd.load(), .events = POLLIN, .revents = 0};
    for (;;) {
        if (stop_flag_is_raised(stop)) return -EINTR;
        VEXA_TEST_WINDOW();
        const int ready = poll_all(all, count + 1);
        const int error = errno;
        if (stop_flag_is_raised(stop)) return -EINTR;
        if (ready > 0 && all[count].revents != 0) return -EINTR;
        if (ready < 0 && error == EINTR) continue;
        if (ready < 0) return -error;
        std::copy_n(all, count, fds);
        return ready;
    }
}

}  // namespace

int vexastats_poll(pollfd* fds, size_t count, int64_t timeout_ms, const stop_flag& stop) {
    const uint64_t begin_ms = vexastats_mono_time_ms();
    return poll_with_stop(fds, count, stop, [&](pollfd* all, size_t all_count) {
        int64_t left_ms = -1;
        if (timeout_ms >= 0) {
            const auto waited_ms = static_cast<int64_t>(vexastats_mono_time_ms() - begin_ms);
            left_ms = std::max<int64_t>(timeout_ms - waited_ms, 0);
        }
        return platform_poll(all, all_count, left_ms);
    });
}

int vexastats_poll_until(pollfd* fds, size_t count, int64_t real_ms, const stop_flag& stop) {
    return poll_with_stop(fds, count, stop, [&](pollfd* all, size_t all_count) {
        return platform_poll_until(all, all_count, real_ms);
    });
}

bool vexastats_sleep_ms(int64_t ms, const stop_flag& stop) {
    return vexastats_poll(nullptr, 0, std::max<int64_t>(ms, 0), stop) != -EINTR;
}

bool vexastats_sleep_longer(growing_pause* pause, const stop_flag& stop) {
    const int64_t pause_ms = pause->next_ms;
    pause->next_ms = std::min(2 * pause_ms, growing_pause::LONGEST_MS);
    return vexastats_sleep_ms(pause_ms, stop);
}

ssize_t vexastats_read_fd(int fd, void* buf, size_t size, const stop_flag& stop) {
    for (;;) {
        pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
        const int ready = vexastats_poll(&readable, 1, -1, stop);
        if (ready < 0) {
            errno = -ready;
            return -1;
        }
        const ssize_t count = read(fd, buf, size);
        // Another reader may have taken what was there from a non-blocking descriptor.
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        return count;
    }
}
