// The phone's clocks on Linux: this machine's own, unless the file /dev/clock says otherwise. The
// file may appear, be rewritten or be replaced at any time. Reading a clock looks at the file's
// time stamp; a wait with a time-out watches the file, and works its deadline out afresh at every
// change.
#include "platform/clock.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

#include "base/unique_handle.h"
#include "host/clock_course.h"
#include "host/driven.h"

namespace {

constexpr char CLOCK_DIR[] = "/dev";
constexpr char CLOCK_FILE[] = "/dev/clock";

// A file as young as this may be rewritten without its time stamp changing (the kernel counts it in
// ticks of up to 10 ms): it is read again each time.
constexpr int64_t YOUNG_NS = 20 * NS_PER_MS;

// For how long a file that was not there is taken not to be there by readings that no wait depends
// on, so that a phone without one pays a look a millisecond and not one a reading.
constexpr int64_t ABSENT_NS = NS_PER_MS;

// How often a wait looks by itself when the file cannot be watched.
constexpr int64_t UNWATCHED_LOOK_NS = 200 * NS_PER_MS;

constexpr nfds_t MAX_TIMED_FDS = 63;

int64_t to_ns(const timespec& time) {
    return int64_t{time.tv_sec} * NS_PER_S + time.tv_nsec;
}

timespec to_timespec(int64_t ns) {
    int64_t seconds = ns / NS_PER_S;
    int64_t rest = ns % NS_PER_S;
    if (rest < 0) {  // before 1970
        seconds -= 1;
        rest += NS_PER_S;
    }
    return {.tv_sec = seconds, .tv_nsec = rest};
}

int64_t host_clock_ns(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return to_ns(now);
}

// What is known of the clocks, and of the file it was read from.
struct clock_state {
    clock_course course{};
    int64_t active = 0;    // a SPEC was read: the course holds instead of the machine's clocks
    int64_t settled = 0;   // the file was old enough when it was read to be known by its stamp
    int64_t mtime_ns = 0;  // stamp and identity of the file as it was read
    int64_t ino = 0;

    bool knows(const struct stat& file) const {
        return settled && mtime_ns == to_ns(file.st_mtim) &&
               ino == static_cast<int64_t>(file.st_ino);
    }
};

// The state that all threads and signal handlers share, as two copies that take turns: the newer
// one is whole at all times, so a reader never waits, not even a handler that interrupted the
// writer.
class shared_state {
  public:
    clock_state load() const {
        for (;;) {
            const uint64_t turn = turn_.load();
            words copy;
            for (size_t i = 0; i < copy.size(); ++i) copy[i] = copies_[turn % 2][i].load();
            // Unchanged: the writer of the turn after next, who reuses this copy, has not begun.
            if (turn_.load() == turn) return std::bit_cast<clock_state>(copy);
        }
    }

    // For the one thread that holds the turn to refresh.
    void store(const clock_state& state) {
        const uint64_t next = turn_.load() + 1;
        const words copy = std::bit_cast<words>(state);
        for (size_t i = 0; i < copy.size(); ++i) copies_[next % 2][i].store(copy[i]);
        turn_.store(next);
    }

  private:
    using words = std::array<int64_t, sizeof(clock_state) / sizeof(int64_t)>;
    std::atomic<uint64_t> turn_{0};
    std::array<std::array<std::atomic<int64_t>, std::tuple_size_v<words>>, 2> copies_{};
};

shared_state g_state;
std::atomic<bool> g_refreshing{false};
std::atomic<int64_t> g_absent_until_ns{0};  // machine's monotonic clock
std::atomic<bool> g_looked{false};          // this process has looked for the file before
std::atomic<int64_t> g_boot_floor_ns{
    0};  // latest reading of the boot-time clock: never runs backwards

int64_t raise_boot_floor(int64_t boot_ns) {
    int64_t floor_ns = g_boot_floor_ns.load();
    while (floor_ns < boot_ns && !g_boot_floor_ns.compare_exchange_weak(floor_ns, boot_ns)) {
    }
    return std::max(floor_ns, boot_ns);
}

// The course of clocks that nothing was said about.
clock_course machine_course(int64_t host_ns) {
    return {.host_ns = host_ns,
            .boot_ns = host_ns,
            .real_ns = host_clock_ns(CLOCK_REALTIME),
            .speed = 1};
}

// What the file makes of the clocks, from its time stamp on. What cannot be parsed changes nothing:
// a writer was caught in the middle, and its end will be another change.
clock_state read_clock_file(const clock_state& before, bool keep_boot) {
    const unique_fd fd(open(CLOCK_FILE, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) return before;
    struct stat file = {};
    char text[256];
    if (fstat(fd.get(), &file) != 0) return before;
    const ssize_t len = read(fd.get(), text, sizeof text);
    if (len <= 0 || len == sizeof text) return before;
    const std::optional<clock_spec> spec = clock_spec_parse(text, static_cast<size_t>(len));
    if (!spec) return before;

    const int64_t host_ns = host_clock_ns(CLOCK_BOOTTIME);
    const int64_t age_ns =
        std::max<int64_t>(host_clock_ns(CLOCK_REALTIME) - to_ns(file.st_mtim), 0);
    const clock_course present = before.active ? before.course : machine_course(host_ns);
    return {
        .course = course_apply(present, *spec, host_ns - age_ns, keep_boot),
        .active = 1,
        .settled = age_ns > YOUNG_NS,
        .mtime_ns = to_ns(file.st_mtim),
        .ino = static_cast<int64_t>(file.st_ino),
    };
}

// Reads the file for all threads. For the one that holds the turn.
clock_state refresh() {
    const clock_state before = g_state.load();
    // Before anybody has seen the boot-time clock it may begin anywhere.
    const bool first = !g_looked.load();
    const clock_state current = read_clock_file(before, !first);
    if (!first) {
        const int64_t host_ns = host_clock_ns(CLOCK_BOOTTIME);
        raise_boot_floor(before.active ? course_boot_ns(before.course, host_ns) : host_ns);
    }
    g_state.store(current);
    g_looked.store(true);
    return current;
}

// The clocks as they are now said to be. A change is read by one thread for all. Who must not wait
// for that (a signal handler may have interrupted that very thread) reads it for itself meanwhile;
// a wait takes its turn, since it may not miss a word of an earlier SPEC that the other one is
// reading.
clock_state present_state(bool wait_turn) {
    if (!wait_turn && host_clock_ns(CLOCK_MONOTONIC) < g_absent_until_ns.load())
        return g_state.load();
    const bool first = !g_looked.load();
    struct stat file = {};
    if (stat(CLOCK_FILE, &file) != 0) {
        g_looked.store(true);
        g_absent_until_ns.store(host_clock_ns(CLOCK_MONOTONIC) + ABSENT_NS);
        return g_state.load();
    }
    const clock_state known = g_state.load();
    if (known.knows(file)) return known;
    while (g_refreshing.exchange(true)) {
        if (!wait_turn) return read_clock_file(known, !first);
        sched_yield();  // the other one is reading a few dozen bytes
    }
    const clock_state current = refresh();
    g_refreshing.store(false);
    return current;
}

int64_t boot_now_ns(const clock_state& now) {
    const int64_t host_ns = host_clock_ns(CLOCK_BOOTTIME);
    // The machine's own time counts too: another thread may have read a SPEC meanwhile.
    return raise_boot_floor(now.active ? course_boot_ns(now.course, host_ns) : host_ns);
}

// A thread's watch over the clock file, made at its first wait with a time-out.
class clock_watch {
  public:
    // Returns a descriptor that is readable once the file may have changed since the last call, or
    // -1 when none can be had. Look at the file after this, not before.
    int arm() {
        if (fd_ && owner_ != getpid())
            fd_.reset();  // a forked child would take its parent's events
        if (fd_ && !drain()) return fd_.get();
        if (!fd_) {
            fd_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
            file_wd_ = -1;
            owner_ = getpid();
        }
        // The directory tells of a file that comes; adding a watch that is there already is
        // harmless.
        if (!fd_ || inotify_add_watch(fd_.get(), CLOCK_DIR, IN_CREATE | IN_MOVED_TO) < 0) {
            fd_.reset();
            return -1;
        }
        watch_file();
        return fd_.get();
    }

  private:
    // Throws the waiting events away. Returns whether there were any.
    bool drain() const {
        alignas(inotify_event) char events[4096];
        bool any = false;
        while (read(fd_.get(), events, sizeof events) > 0) any = true;
        return any;
    }

    void watch_file() {
        const int wd = inotify_add_watch(fd_.get(), CLOCK_FILE,
                                         IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF);
        if (wd < 0 || wd == file_wd_) return;
        if (file_wd_ >= 0)
            inotify_rm_watch(fd_.get(), file_wd_);  // fails when the old file is gone
        file_wd_ = wd;
    }

    unique_fd fd_;
    int file_wd_ = -1;
    pid_t owner_ = -1;
};

thread_local clock_watch g_watch;

int poll_for_ns(pollfd* fds, nfds_t count, int64_t host_ns) {
    const timespec timeout = to_timespec(host_ns);
    return ppoll(fds, count, &timeout, nullptr);
}

// As ppoll on fds, but also ends, with 0, when watch_fd is readable.
int poll_watched(pollfd* fds, nfds_t count, int watch_fd, int64_t host_ns) {
    if (watch_fd < 0) return poll_for_ns(fds, count, std::min(host_ns, UNWATCHED_LOOK_NS));
    pollfd all[MAX_TIMED_FDS + 1];
    std::copy_n(fds, count, all);
    all[count] = {.fd = watch_fd, .events = POLLIN, .revents = 0};
    int ready = poll_for_ns(all, count + 1, host_ns);
    if (ready > 0 && all[count].revents) --ready;
    std::copy_n(all, count, fds);
    return ready;
}

int64_t to_ns_saturating(int64_t ms) {
    int64_t ns = 0;
    return __builtin_mul_overflow(ms, NS_PER_MS, &ns) ? INT64_MAX : ns;
}

struct deadline {
    clockid_t clock = CLOCK_BOOTTIME;  // or CLOCK_REALTIME
    int64_t ns = 0;
};

// For how much of this machine's time the deadline is ahead; not positive: it has passed.
int64_t left_ns(const deadline& end, const clock_state& current) {
    const bool real = end.clock == CLOCK_REALTIME;
    int64_t host_end_ns = end.ns;
    int64_t host_now_ns = host_clock_ns(CLOCK_BOOTTIME);
    if (current.active) {
        host_end_ns = real ? course_host_ns_of_real(current.course, end.ns)
                           : course_host_ns(current.course, end.ns);
    } else if (real) {
        host_now_ns = host_clock_ns(CLOCK_REALTIME);
    }
    int64_t left = 0;
    if (__builtin_sub_overflow(host_end_ns, host_now_ns, &left)) left = INT64_MAX;
    return host_end_ns <= host_now_ns ? 0 : left;
}

// Polls until the deadline, worked out afresh at every change of the clocks' course.
int poll_to_deadline(pollfd* fds, nfds_t count, const deadline& end, int watch_fd,
                     clock_state current) {
    if (count > MAX_TIMED_FDS) {
        errno = EINVAL;
        return -1;
    }
    for (;;) {
        const int64_t left = left_ns(end, current);
        // The last look at the descriptors is taken also when the time has passed.
        if (left <= 0) return poll(fds, count, 0);
        const int ready = poll_watched(fds, count, watch_fd, left);
        if (ready != 0) return ready;
        watch_fd = g_watch.arm();
        current = present_state(true);
    }
}

}  // namespace

int platform_clock_gettime(clockid_t clock, timespec* now) {
    if (driven_is_on()) {
        *now = to_timespec(clock == CLOCK_REALTIME ? driven_real_ns() : driven_boot_ns());
        return 0;
    }
    const bool boot = clock == CLOCK_BOOTTIME || clock == CLOCK_MONOTONIC;
    const int saved_errno = errno;
    const clock_state current = present_state(false);
    errno = saved_errno;
    // The monotonic clock is the boot-time clock: the simulated phone never suspends.
    if (boot) {
        *now = to_timespec(boot_now_ns(current));
        return 0;
    }
    if (!current.active || clock != CLOCK_REALTIME) return clock_gettime(clock, now);
    *now = to_timespec(course_real_ns(current.course, host_clock_ns(CLOCK_BOOTTIME)));
    return 0;
}

int platform_poll(pollfd* fds, nfds_t count, int64_t timeout_ms) {
    if (driven_is_on() && timeout_ms != 0) {
        int64_t deadline_ns = timeout_ms < 0 ? INT64_MAX : to_ns_saturating(timeout_ms);
        if (__builtin_add_overflow(deadline_ns, driven_boot_ns(), &deadline_ns))
            deadline_ns = INT64_MAX;
        return driven_poll(fds, count, false, deadline_ns);
    }
    if (timeout_ms < 0) return ppoll(fds, count, nullptr, nullptr);
    if (timeout_ms == 0) return poll(fds, count, 0);
    const int watch_fd = g_watch.arm();
    const clock_state current = present_state(true);
    int64_t deadline_ns = to_ns_saturating(timeout_ms);
    if (__builtin_add_overflow(deadline_ns, boot_now_ns(current), &deadline_ns)) {
        deadline_ns = INT64_MAX;
    }
    return poll_to_deadline(fds, count, {.clock = CLOCK_BOOTTIME, .ns = deadline_ns}, watch_fd,
                            current);
}

int platform_poll_until(pollfd* fds, nfds_t count, int64_t real_ms) {
    if (driven_is_on()) return driven_poll(fds, count, true, to_ns_saturating(real_ms));
    const int watch_fd = g_watch.arm();
    const clock_state current = present_state(true);
    return poll_to_deadline(fds, count, {.clock = CLOCK_REALTIME, .ns = to_ns_saturating(real_ms)},
                            watch_fd, current);
}
