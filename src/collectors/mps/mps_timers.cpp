#define LOG_TAG "vexastatsd"

#include "collectors/mps/mps_timers.h"

#include <errno.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "base/sync.h"
#include "base/unique_handle.h"
#include "collectors/mps/mps_kbr.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "mps_events/mps_events.h"
#include "platform/log.h"

namespace {

struct timer_state {
    mps_timer number = MPS_TIMER_FETCH;
    bool created = false;
    bool armed = false;
    uint64_t deadline_ms = 0;  // monotonic
};

// The timers of one run of the collector: nothing of it outlives mps_timers_end.
struct timer_service {
    vexa_mutex mutex{};
    timer_state timers[2] GUARDED_BY(mutex) = {{.number = MPS_TIMER_FETCH},
                                               {.number = MPS_TIMER_LL_DELAY}};
    uint32_t expired GUARDED_BY(mutex) = 0;  // timers that nobody has served yet
    unique_fd changed GUARDED_BY(mutex){};   // eventfd: a timer was started or stopped
    pthread_t thread GUARDED_BY(mutex){};
    bool has_thread GUARDED_BY(mutex) = false;

    timer_state* find(mps_timer timer) REQUIRES(mutex) {
        return std::find_if(std::begin(timers), std::end(timers),
                            [timer](const timer_state& state) { return state.number == timer; });
    }
};

timer_service g_timers;

void mps_set_timer_expired(uint32_t timer) {
    ALOGI("%s: Setting Timer expired %d", __func__, static_cast<int>(timer));
    const vexa_lock held(g_timers.mutex);
    g_timers.expired |= timer;
}

// ---- The thread

// Milliseconds until the next expiry; -1: no timer runs.
int64_t next_wait_ms() EXCLUDES(g_timers.mutex) {
    const uint64_t now_ms = vexastats_mono_time_ms();
    int64_t wait_ms = -1;
    const vexa_lock held(g_timers.mutex);
    for (const timer_state& timer : g_timers.timers) {
        if (!timer.armed) continue;
        const auto left_ms =
            static_cast<int64_t>(timer.deadline_ms - std::min(timer.deadline_ms, now_ms));
        wait_ms = wait_ms < 0 ? left_ms : std::min(wait_ms, left_ms);
    }
    return wait_ms;
}

// Stops the timer whose time came first and gives its number; 0: none has come.
uint32_t take_expired() EXCLUDES(g_timers.mutex) {
    const uint64_t now_ms = vexastats_mono_time_ms();
    const vexa_lock held(g_timers.mutex);
    timer_state* first = nullptr;
    for (timer_state& timer : g_timers.timers) {
        if (!timer.armed || timer.deadline_ms > now_ms) continue;
        if (!first || timer.deadline_ms < first->deadline_ms) first = &timer;
    }
    if (!first) return 0;
    first->armed = false;
    return first->number;
}

struct thread_arguments {
    const stop_flag* stop = nullptr;
    int changed_fd = -1;
};
thread_arguments g_arguments;  // written before the thread is made

void* timer_thread(void*) {
    pollfd changed{.fd = g_arguments.changed_fd, .events = POLLIN, .revents = 0};
    while (vexastats_poll(&changed, 1, next_wait_ms(), *g_arguments.stop) >= 0) {
        eventfd_t forgotten = 0;
        if (changed.revents != 0) (void)eventfd_read(changed.fd, &forgotten);
        while (const uint32_t timer = take_expired()) mps_timer_cb(timer);
    }
    return nullptr;
}

// Returns 0 or an errno.
int start_thread(const stop_flag& stop) REQUIRES(g_timers.mutex) {
    if (g_timers.has_thread) return 0;
    g_timers.changed.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!g_timers.changed) return errno;
    g_arguments = {.stop = &stop, .changed_fd = g_timers.changed.get()};
    const int error = pthread_create(&g_timers.thread, nullptr, timer_thread, nullptr);
    g_timers.has_thread = error == 0;
    return error;
}

}  // namespace

void mps_timer_create(mps_timer timer, const stop_flag& stop) {
    const vexa_lock held(g_timers.mutex);
    const int error = start_thread(stop);
    if (error != 0) {
        ALOGE("Failed to create %d timer: %d", static_cast<int>(timer), error);
        return;
    }
    g_timers.find(timer)->created = true;
    ALOGI("Created %d timer", static_cast<int>(timer));
}

bool mps_timer_exists(mps_timer timer) {
    const vexa_lock held(g_timers.mutex);
    return g_timers.find(timer)->created;
}

int mps_timer_set(mps_timer timer, uint32_t seconds) {
    const uint64_t deadline_ms = vexastats_mono_time_ms() + uint64_t{seconds} * 1000;
    const vexa_lock held(g_timers.mutex);
    timer_state* state = g_timers.find(timer);
    if (!state->created) return EINVAL;
    state->armed = seconds != 0;
    state->deadline_ms = deadline_ms;
    return eventfd_write(g_timers.changed.get(), 1) == 0 ? 0 : errno;
}

void mps_timers_end() {
    pthread_t thread{};
    {
        const vexa_lock held(g_timers.mutex);
        for (timer_state& timer : g_timers.timers) timer.created = timer.armed = false;
        if (!g_timers.has_thread) return;
        g_timers.has_thread = false;
        thread = g_timers.thread;
        // For a stop flag without a descriptor, which ends no wait by itself.
        (void)eventfd_write(g_timers.changed.get(), 1);
    }
    (void)pthread_join(thread, nullptr);
    const vexa_lock held(g_timers.mutex);
    g_timers.changed.reset();
    g_timers.expired = 0;
}

bool mps_start_ll_delay_timer() {
    if (!mps_timer_exists(MPS_TIMER_LL_DELAY)) return false;
    const uint32_t seconds = mps_kbr_get_lll_delayt_timer_secs();
    ALOGI("Starting ll delay timer for  %d secs", static_cast<int>(seconds));
    const int error = mps_timer_set(MPS_TIMER_LL_DELAY, seconds);
    if (error != 0) ALOGE("Failed to start timer err:%d", error);
    return error == 0;
}

void mps_timer_cb(uint32_t value) {
    if (value == 0) {
        ALOGE("None timer in timer callback");
    } else {
        ALOGI("Timer id %d expired\n", static_cast<int>(value));
    }
    mps_set_timer_expired(value);
    mps_set_event(MPS_EVENT_TIMER);
}

uint32_t mps_timers_expired() {
    const vexa_lock held(g_timers.mutex);
    return g_timers.expired;
}

void mps_clear_timer_expired(uint32_t timers) {
    ALOGI("%s: Clearing Timer expired %d", __func__, static_cast<int>(timers));
    const vexa_lock held(g_timers.mutex);
    g_timers.expired &= ~timers;
}
