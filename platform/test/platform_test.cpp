#include "platform_test.h"

#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>

#include "base/unique_handle.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/properties.h"

namespace {

using real_clock = std::chrono::steady_clock;

// A time-out this long is none; the clocks could not be moved to its end (a million years).
constexpr int64_t ENDLESS_MS = int64_t{1} << 55;

// One thread in platform_poll.
struct waiter {
    std::vector<pollfd> fds;
    std::optional<int64_t> deadline_ms{};            // nothing: no limit
    const std::atomic<int64_t>* clock_ms = nullptr;  // the one that the deadline is a time of
    unique_fd wake{};  // eventfd, written when the clocks or their mode changed
    bool woken = false;
};

struct phone {
    std::mutex mutex;
    std::condition_variable changed;  // the log grew, or a thread began or ended a wait
    std::vector<platform_test_log_entry> log;
    std::map<std::string, std::string, std::less<>> properties;
    std::list<waiter*> waiters;
    platform_test_clock mode = platform_test_clock::AUTO;

    // Written under the mutex, read without it: reading a clock is async-signal-safe.
    std::atomic<int64_t> real_ms{PLATFORM_TEST_REAL_MS};
    std::atomic<int64_t> boot_ms{PLATFORM_TEST_BOOT_MS};
    std::atomic<int64_t> mono_ms{PLATFORM_TEST_MONO_MS};
};

// Never destroyed: a thread may log while the process ends.
phone& the_phone() {
    static phone* const only = new phone;
    return *only;
}

using guard = std::unique_lock<std::mutex>;

void wake_waiters(phone& p) {
    for (waiter* w : p.waiters) {
        if (!w->wake) continue;
        w->woken = true;
        eventfd_write(w->wake.get(), 1);
    }
}

void advance(phone& p, int64_t ms) {
    p.real_ms += ms;
    p.boot_ms += ms;
    p.mono_ms += ms;
    wake_waiters(p);
}

bool is_parked(const waiter& w) {
    std::vector<pollfd> fds = w.fds;
    return !w.woken && poll(fds.data(), fds.size(), 0) == 0;
}

bool wait_until(phone& p, guard& held, int64_t limit_ms, const auto& condition) {
    return p.changed.wait_until(held, real_clock::now() + std::chrono::milliseconds(limit_ms),
                                condition);
}

// Blocks in the kernel, as a member of the list of waiters, until a descriptor is ready, the clocks
// have moved or a signal came. Returns what ppoll did for the caller's descriptors.
int park(phone& p, guard& held, waiter* w) {
    std::vector<pollfd> all = w->fds;
    if (w->wake) all.push_back({.fd = w->wake.get(), .events = POLLIN, .revents = 0});
    const auto place = p.waiters.insert(p.waiters.end(), w);
    p.changed.notify_all();
    held.unlock();
    int ready = ppoll(all.data(), all.size(), nullptr, nullptr);
    const int error = errno;
    held.lock();
    p.waiters.erase(place);
    p.changed.notify_all();
    if (ready > 0 && w->wake && all.back().revents) --ready;
    std::copy_n(all.begin(), w->fds.size(), w->fds.begin());
    errno = error;
    return ready;
}

timespec to_timespec(int64_t ms) {
    const int64_t rest = ((ms % 1000) + 1000) % 1000;
    return {.tv_sec = (ms - rest) / 1000, .tv_nsec = rest * 1000000};
}

}  // namespace

void platform_test_reset() {
    platform_test_reset_log_script();
    platform_test_reset_diag();
    phone& p = the_phone();
    const guard held(p.mutex);
    p.log.clear();
    p.properties.clear();
    p.mode = platform_test_clock::AUTO;
    p.real_ms = PLATFORM_TEST_REAL_MS;
    p.boot_ms = PLATFORM_TEST_BOOT_MS;
    p.mono_ms = PLATFORM_TEST_MONO_MS;
}

// Log

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    const int saved_errno = errno;
    char text[4096];
    va_list args;
    va_start(args, format);
    const int len = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    phone& p = the_phone();
    {
        const guard held(p.mutex);
        p.log.push_back({.priority = priority, .tag = tag, .text = len < 0 ? "" : text});
    }
    p.changed.notify_all();
    platform_test_wake_log_readers(priority, tag, len < 0 ? "" : text);
    errno = saved_errno;
    return len;
}

std::vector<platform_test_log_entry> platform_test_log() {
    phone& p = the_phone();
    const guard held(p.mutex);
    return p.log;
}

namespace {
size_t count_text(const phone& p, std::string_view text) {
    return static_cast<size_t>(std::count_if(
        p.log.begin(), p.log.end(), [&](const auto& entry) { return entry.text == text; }));
}
}  // namespace

size_t platform_test_log_count(std::string_view text) {
    phone& p = the_phone();
    const guard held(p.mutex);
    return count_text(p, text);
}

bool platform_test_wait_log(std::string_view text, int64_t limit_ms) {
    phone& p = the_phone();
    guard held(p.mutex);
    return wait_until(p, held, limit_ms, [&] { return count_text(p, text) > 0; });
}

void platform_test_clear_log() {
    phone& p = the_phone();
    const guard held(p.mutex);
    p.log.clear();
}

// Properties

int property_get(const char* key, char* value, const char* default_value) {
    std::string found = platform_test_property(key).value_or("");
    if (found.empty() && default_value) found = default_value;
    found.resize(std::min<size_t>(found.size(), PROPERTY_VALUE_MAX - 1));
    memcpy(value, found.c_str(), found.size() + 1);
    return static_cast<int>(found.size());
}

int property_set(const char* key, const char* value) {
    if (strlen(value) > PROPERTY_VALUE_MAX - 1) return -EINVAL;
    platform_test_set_property(key, value);
    return 0;
}

std::optional<std::string> platform_test_property(std::string_view name) {
    phone& p = the_phone();
    const guard held(p.mutex);
    const auto found = p.properties.find(name);
    if (found == p.properties.end()) return {};
    return found->second;
}

void platform_test_set_property(std::string_view name, std::string_view value) {
    phone& p = the_phone();
    const guard held(p.mutex);
    p.properties.insert_or_assign(std::string(name), std::string(value));
}

// Clocks

void platform_test_set_real_ms(int64_t real_ms) {
    phone& p = the_phone();
    const guard held(p.mutex);
    p.real_ms = real_ms;
    wake_waiters(p);
}

void platform_test_set_boot_ms(int64_t boot_ms) {
    the_phone().boot_ms = boot_ms;
}

void platform_test_advance_ms(int64_t ms) {
    phone& p = the_phone();
    const guard held(p.mutex);
    advance(p, ms);
}

void platform_test_set_clock(platform_test_clock mode) {
    phone& p = the_phone();
    const guard held(p.mutex);
    p.mode = mode;
    wake_waiters(p);
}

bool platform_test_wait_parked(size_t threads, int64_t limit_ms) {
    phone& p = the_phone();
    guard held(p.mutex);
    return wait_until(p, held, limit_ms, [&] {
        return static_cast<size_t>(std::count_if(p.waiters.begin(), p.waiters.end(),
                                                 [](const waiter* w) { return is_parked(*w); })) >=
               threads;
    });
}

void platform_test_at_once(const std::function<void()>& what) {
    const guard held(the_phone().mutex);
    what();
}

int platform_clock_gettime(clockid_t clock, timespec* now) {
    const phone& p = the_phone();
    switch (clock) {
        case CLOCK_REALTIME:
            *now = to_timespec(p.real_ms);
            return 0;
        case CLOCK_BOOTTIME:
            *now = to_timespec(p.boot_ms);
            return 0;
        case CLOCK_MONOTONIC:
            *now = to_timespec(p.mono_ms);
            return 0;
        default:
            errno = EINVAL;
            return -1;
    }
}

namespace {

int poll_to_deadline(phone& p, guard& held, waiter* self, pollfd* fds) {
    for (;;) {
        int ready = poll(self->fds.data(), self->fds.size(), 0);
        const int64_t left_ms = self->deadline_ms.value_or(INT64_MAX) - *self->clock_ms;
        if (ready == 0 && left_ms > 0) {
            if (self->deadline_ms && p.mode == platform_test_clock::AUTO) {
                advance(p, left_ms);
                continue;
            }
            if (self->deadline_ms && !self->wake)
                self->wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            self->woken = false;
            ready = park(p, held, self);
            eventfd_t ignored = 0;
            if (self->wake) (void)eventfd_read(self->wake.get(), &ignored);
            if (ready == 0) continue;
        }
        std::copy(self->fds.begin(), self->fds.end(), fds);
        return ready;
    }
}

}  // namespace

int platform_poll(pollfd* fds, nfds_t count, int64_t timeout_ms) {
    phone& p = the_phone();
    guard held(p.mutex);
    waiter self{.fds = {fds, fds + count}, .clock_ms = &p.mono_ms};
    if (timeout_ms >= 0 && timeout_ms < ENDLESS_MS) self.deadline_ms = p.mono_ms + timeout_ms;
    return poll_to_deadline(p, held, &self, fds);
}

int platform_poll_until(pollfd* fds, nfds_t count, int64_t real_ms) {
    phone& p = the_phone();
    guard held(p.mutex);
    waiter self{.fds = {fds, fds + count}, .clock_ms = &p.real_ms};
    if (real_ms < ENDLESS_MS) self.deadline_ms = real_ms;
    return poll_to_deadline(p, held, &self, fds);
}
