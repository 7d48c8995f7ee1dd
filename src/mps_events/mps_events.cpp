#define LOG_TAG "vexastatsd"

#include "mps_events/mps_events.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "base/sync.h"
#include "framework/time/test_window.h"
#include "framework/time/wait.h"
#include "platform/log.h"

namespace {

constexpr char COLLECTOR[] = "mps_main";  // the function that the collector's texts name
constexpr int64_t BLIND_WAIT_MS = 1000;

// Both locks live as long as the process, and they are never held together.
constinit vexa_mutex g_event_lock;
uint32_t g_event_mask GUARDED_BY(g_event_lock) = 0;

constinit vexa_mutex g_wake_up_lock;
uint32_t g_signal_count GUARDED_BY(g_wake_up_lock) = 0;
// The wake-up: an eventfd that is readable while the counter is not 0. Made by the first sleep and
// kept; until then nobody waits on it.
int g_wake_up_fd GUARDED_BY(g_wake_up_lock) = -1;

void signal_collector() EXCLUDES(g_wake_up_lock) {
    const vexa_lock lock(g_wake_up_lock);
    ++g_signal_count;
    if (g_wake_up_fd >= 0) (void)eventfd_write(g_wake_up_fd, 1);
}

// Whether there is nothing to do but to wait; *wake_up_fd is then what ends the wait, or -1.
bool begin_sleep(int* wake_up_fd) EXCLUDES(g_wake_up_lock) {
    const vexa_lock lock(g_wake_up_lock);
    if (g_signal_count != 0) {
        ALOGI("%s: No Wait on signal\n", COLLECTOR);
        return false;
    }
    ALOGI("%s: Wait on signal\n", COLLECTOR);
    if (g_wake_up_fd < 0) g_wake_up_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_wake_up_fd < 0) ALOGE("%s: failed to make eventfd. err:%d\n", COLLECTOR, errno);
    *wake_up_fd = g_wake_up_fd;
    return true;
}

void end_sleep() EXCLUDES(g_wake_up_lock) {
    const vexa_lock lock(g_wake_up_lock);
    g_signal_count = 0;
    eventfd_t forgotten = 0;
    if (g_wake_up_fd >= 0) (void)eventfd_read(g_wake_up_fd, &forgotten);
}

}  // namespace

void mps_set_event(uint32_t event) {
    ALOGI("%s: Setting event %d", __func__, static_cast<int>(event));
    {
        const vexa_lock lock(g_event_lock);
        g_event_mask |= event;
    }
    VEXA_TEST_WINDOW();
    signal_collector();  // only now: who wakes finds the bit
}

void mps_signal_collector() {
    signal_collector();
}

void mps_campaign_event(uint32_t event) {
    mps_set_event(event);
}

void mps_clear_event(uint32_t event) {
    ALOGI("%s: Clearing event %d", __func__, static_cast<int>(event));
    const vexa_lock lock(g_event_lock);
    g_event_mask &= ~event;
}

uint32_t mps_events() {
    const vexa_lock lock(g_event_lock);
    return g_event_mask;
}

uint32_t mps_signal_count() {
    const vexa_lock lock(g_wake_up_lock);
    return g_signal_count;
}

void mps_wait_for_signal(const stop_flag& stop) {
    int wake_up_fd = -1;
    if (begin_sleep(&wake_up_fd)) {
        pollfd wake_up{.fd = wake_up_fd, .events = POLLIN, .revents = 0};
        // Without a descriptor (there was none left) the next pass looks again soon.
        (void)vexastats_poll(&wake_up, 1, wake_up_fd < 0 ? BLIND_WAIT_MS : -1, stop);
    }
    end_sleep();
}
