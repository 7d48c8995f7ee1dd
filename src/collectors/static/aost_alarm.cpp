#define LOG_TAG "vexastatsd"

#include <errno.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <algorithm>

#include "collectors/static/aost_imsa.h"
#include "collectors/static/aost_reporter.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "platform/log.h"

namespace {

constexpr int64_t PAUSE_MS = 1000;

// What somebody adds to the descriptor's count. A signal is told by the same call that wakes, so
// the one is never seen without the other.
constexpr eventfd_t WAKE = 1;
constexpr eventfd_t SIGNALLED = eventfd_t{1} << 32;

std::atomic<int> g_wake_fd{-1};  // lives as long as the process: a signal may come at any time

void wake_with(eventfd_t count) {
    const int saved_errno = errno;
    if (g_wake_fd >= 0) (void)eventfd_write(g_wake_fd, count);
    errno = saved_errno;
}

// Only marks the alarm due: a signal may come in any thread, whatever that holds.
void note_sigalrm(int) {
    wake_with(SIGNALLED);
}

// Takes what was added. Returns whether a signal came.
bool take_wake_ups() {
    eventfd_t count = 0;
    (void)eventfd_read(g_wake_fd, &count);
    return count >= SIGNALLED;
}

int64_t now_ms() {
    return static_cast<int64_t>(vexastats_mono_time_ms());
}

// An alarm is due once, whether its time has come or somebody sent the signal.
bool clear_due_alarm(bool is_signalled) {
    const bool is_late = g_aost.alarm_due_ms != AOST_NO_ALARM && now_ms() >= g_aost.alarm_due_ms;
    if (!is_signalled && !is_late) return false;
    g_aost.alarm_due_ms = AOST_NO_ALARM;
    return true;
}

// The shorter of two times, of which a negative one is endless.
int64_t shorter_ms(int64_t a, int64_t b) {
    if (a < 0 || b < 0) return std::max(a, b);
    return std::min(a, b);
}

int64_t alarm_wait_ms() {
    if (g_aost.alarm_due_ms == AOST_NO_ALARM) return -1;
    return std::max<int64_t>(g_aost.alarm_due_ms - now_ms(), 0);
}

// Returns false when the reporter has to end.
bool drop_stored_data() {
    const vexa_lock held(g_aost.data_lock);
    if (g_aost.stored) return aost_imsa_write_service_status_change(true);
    ALOGI("No IMS data to drop");
    return true;
}

}  // namespace

void aost_wake() {
    wake_with(WAKE);
}

bool aost_alarm_install() {
    if (g_wake_fd < 0) g_wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    (void)take_wake_ups();  // an earlier reporter's
    struct sigaction action = {};
    action.sa_handler = note_sigalrm;
    action.sa_flags = SA_RESTART;  // nobody else has to notice
    sigemptyset(&action.sa_mask);
    if (g_wake_fd >= 0 && sigaction(SIGALRM, &action, nullptr) == 0) return true;
    ALOGE("[Error] Failed to set handler for SIGALRM\n");
    return false;
}

void aost_alarm_arm(uint32_t seconds) {
    ALOGD("alarm(%d)", static_cast<int>(seconds));
    g_aost.alarm_due_ms = seconds == 0 ? AOST_NO_ALARM : now_ms() + int64_t{seconds} * 1000;
}

void aost_imsa_sig_alarm_hdlr(int signo) {
    ALOGD("%s, sig_num=%d, registered=%d", __func__, signo, g_aost.registered.load());
    collector_info* row = g_aost.row;
    if (!row) return;
    if (aost_is_ending(*row)) {
        ALOGD("exit thread");
        aost_imsa_retire();
        return;
    }
    if (!g_aost.registered) return;
    if (!drop_stored_data()) return aost_imsa_retire();
    aost_reload_params(row);
    aost_alarm_arm(g_aost.interval_s);
}

bool aost_wait_once(collector_info* row, int64_t limit_ms) {
    pollfd wake{.fd = g_wake_fd, .events = POLLIN, .revents = 0};
    const int ready = vexastats_poll(&wake, 1, shorter_ms(limit_ms, alarm_wait_ms()), row->stop);
    if (ready == -EINTR) return false;
    if (ready < 0) return vexastats_sleep_ms(PAUSE_MS, row->stop);
    if (clear_due_alarm(ready > 0 && take_wake_ups())) aost_imsa_sig_alarm_hdlr(SIGALRM);
    return !stop_flag_is_raised(row->stop);
}

bool aost_sleep_ms(collector_info* row, int64_t ms) {
    const int64_t end_ms = now_ms() + ms;
    bool goes_on = true;
    for (int64_t left_ms = ms; goes_on && left_ms > 0; left_ms = end_ms - now_ms())
        goes_on = aost_wait_once(row, left_ms);
    return goes_on;
}

// The flag comes before the wake-up that tells of it, and a wake-up waits in its descriptor.
void aost_imsa_wait() {
    collector_info* row = g_aost.row;
    if (!row) return;
    while (g_aost.registered && !aost_is_ending(*row)) {
        if (!aost_wait_once(row, -1)) return;
    }
}
