#include "host/driven.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "base/path.h"
#include "base/unique_handle.h"
#include "host/driven_page.h"

namespace {

constexpr nfds_t MAX_FDS = 63;

driven_page* map_page() {
    char path[64];
    if (!path_join(path, DRIVEN_DIR, DRIVEN_PAGE)) return nullptr;
    const unique_fd fd(open(path, O_RDWR | O_CLOEXEC));
    if (!fd) return nullptr;
    void* memory =
        mmap(nullptr, sizeof(driven_page), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED) return nullptr;
    auto* page = static_cast<driven_page*>(memory);
    return page->magic.load() == DRIVEN_MAGIC ? page : nullptr;
}

driven_page* page() {
    static driven_page* const mapped = [] {
        const int saved_errno = errno;
        driven_page* found = map_page();
        errno = saved_errno;
        return found;
    }();
    return mapped;
}

void futex_wait(std::atomic<uint32_t>* word, uint32_t value) {
    (void)syscall(SYS_futex, word, FUTEX_WAIT, value, nullptr, nullptr, 0);
}

void futex_wake(std::atomic<uint32_t>* word) {
    (void)syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Tells the conductor that there is something to look at.
void tell_conductor() {
    page()->moves.fetch_add(1);
    futex_wake(&page()->moves);
}

// ---- A thread's slot

struct thread_slot {
    driven_slot* slot = nullptr;
    uint64_t chance = 0;  // state of its generator
    unique_fd alarm{};    // a FIFO to which the conductor writes when the deadline has come

    ~thread_slot() {
        if (!slot) return;
        slot->state.store(DRIVEN_ENDING);
        tell_conductor();
    }
};
thread_local thread_slot g_self;

[[noreturn]] void give_up(const char* what) {
    fprintf(stderr, "driven time: %s\n", what);
    abort();
}

driven_slot* reserve_slot() {
    for (driven_slot& slot : page()->slots) {
        uint32_t free = DRIVEN_FREE;
        if (!slot.state.compare_exchange_strong(free, DRIVEN_STARTING)) continue;
        slot.turn.store(0);
        slot.tid.store(0);
        slot.deadline_ns.store(DRIVEN_NEVER);
        return &slot;
    }
    give_up("more threads than it can drive");
}

// Makes the calling thread the one of the slot.
void settle_in(driven_slot* slot) {
    char path[64];
    char name[16];
    snprintf(name, sizeof name, "alarm%zu", static_cast<size_t>(slot - page()->slots));
    (void)path_join(path, DRIVEN_DIR, name);
    g_self.slot = slot;
    g_self.alarm.reset(open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!g_self.alarm) give_up("a FIFO is missing in /dev/driven");
    const uint64_t seed = page()->shuffle_seed.load();
    const auto number = static_cast<uint64_t>(slot - page()->slots);
    g_self.chance = seed == 0 ? 0 : (seed * 0x9e3779b97f4a7c15) ^ (number + 1);
    slot->pid.store(getpid());
    slot->tid.store(static_cast<int32_t>(gettid()));
}

void await_turn() {
    while (g_self.slot->turn.load() == 0) futex_wait(&g_self.slot->turn, 0);
    g_self.slot->turn.store(0);
}

// Lets others run first, if the conductor thinks so.
void offer_turn() {
    g_self.slot->state.store(DRIVEN_READY);
    tell_conductor();
    await_turn();
}

// Every fourth time or so, by a generator of the thread's own: what others do changes nothing.
bool draws_a_switch() {
    g_self.chance ^= g_self.chance << 13;
    g_self.chance ^= g_self.chance >> 7;
    g_self.chance ^= g_self.chance << 17;
    return g_self.chance % 4 == 0;
}

void want_turn() {
    uint32_t waiting = DRIVEN_WAITING;
    // The conductor may have given it already, at the deadline.
    if (g_self.slot->state.compare_exchange_strong(waiting, DRIVEN_READY)) tell_conductor();
    await_turn();
}

void give_turn_up(bool is_wall_clock, int64_t deadline_ns) {
    g_self.slot->is_wall_clock.store(is_wall_clock);
    g_self.slot->deadline_ns.store(deadline_ns);
    g_self.slot->state.store(DRIVEN_WAITING);
    tell_conductor();
}

// ---- Threads that this program starts

struct thread_start {
    void* (*body)(void*) = nullptr;
    void* argument = nullptr;
    driven_slot* slot = nullptr;
};

void* run_thread(void* memory) {
    const thread_start start = *static_cast<thread_start*>(memory);
    delete static_cast<thread_start*>(memory);
    settle_in(start.slot);
    offer_turn();
    return start.body(start.argument);
}

// ---- Conditions

// A thread that waits for a condition. The C library would give it the condition's mutex as soon as
// it is woken, at a moment that is the machine's affair, and whoever has the turn would find that
// held.
struct condition_waiter {
    const pthread_cond_t* condition = nullptr;
    std::atomic<uint32_t> woken{0};
    condition_waiter* next = nullptr;
};
condition_waiter* g_waiters = nullptr;  // touched by the thread that has the turn
std::atomic_flag g_waiters_held;

// Never waited for, since only one thread has the turn: it shows a thread sanitizer, which cannot
// see turns pass through another process, who comes after whom.
class waiters_guard {
  public:
    waiters_guard() {
        while (g_waiters_held.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~waiters_guard() { g_waiters_held.clear(std::memory_order_release); }
    waiters_guard(const waiters_guard&) = delete;
    waiters_guard& operator=(const waiters_guard&) = delete;
};

void join_waiters(condition_waiter* self) {
    const waiters_guard held;
    self->next = g_waiters;
    g_waiters = self;
}

void leave_waiters(const condition_waiter& self) {
    const waiters_guard held;
    condition_waiter** link = &g_waiters;
    while (*link != &self) link = &(*link)->next;
    *link = self.next;
}

}  // namespace

bool driven_is_on() {
    return page() != nullptr;
}

int64_t driven_boot_ns() {
    return page()->boot_ns.load();
}

int64_t driven_real_ns() {
    return page()->real_ns.load();
}

void driven_take_turn() {
    if (!g_self.slot) {
        settle_in(reserve_slot());
        offer_turn();
    } else if (g_self.chance != 0 && draws_a_switch()) {
        offer_turn();
    }
}

int driven_poll(pollfd* fds, nfds_t count, bool is_wall_clock, int64_t deadline_ns) {
    if (count > MAX_FDS) {
        errno = EINVAL;
        return -1;
    }
    driven_take_turn();
    pollfd all[MAX_FDS + 1];
    std::copy_n(fds, count, all);
    all[count] = {.fd = g_self.alarm.get(), .events = POLLIN, .revents = 0};
    give_turn_up(is_wall_clock, deadline_ns);
    const int ready = ppoll(all, count + 1, nullptr, nullptr);
    const int error = errno;
    want_turn();
    char byte = 0;
    while (read(g_self.alarm.get(), &byte, 1) == 1) {
    }
    if (ready < 0) {
        errno = error;
        return ready;
    }
    return poll(fds, count, 0);  // as things are now: others ran meanwhile
}

driven_wait::driven_wait() {
    driven_take_turn();
    give_turn_up(false, DRIVEN_NEVER);
}

driven_wait::~driven_wait() {
    const int saved_errno = errno;
    want_turn();
    errno = saved_errno;
}

// ---- The C library's waits, which the linker leads here (CMakeLists.txt). Weak, so that a test
// can lead them elsewhere.

extern "C" {

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __real_pthread_join(pthread_t thread, void** result);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_broadcast(pthread_cond_t* condition);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);

[[gnu::weak]] int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                        void* (*body)(void*), void* argument) {
    if (!driven_is_on()) return __real_pthread_create(thread, attributes, body, argument);
    driven_take_turn();
    driven_slot* slot = reserve_slot();
    auto* start = new thread_start{.body = body, .argument = argument, .slot = slot};
    const int error = __real_pthread_create(thread, attributes, run_thread, start);
    if (error != 0) {
        delete start;
        slot->state.store(DRIVEN_FREE);
    }
    return error;
}

[[gnu::weak]] int __wrap_pthread_join(pthread_t thread, void** result) {
    if (!driven_is_on()) return __real_pthread_join(thread, result);
    const driven_wait wait;
    return __real_pthread_join(thread, result);
}

[[gnu::weak]] int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    if (!driven_is_on()) return __real_pthread_cond_wait(condition, mutex);
    condition_waiter self{.condition = condition, .woken = 0, .next = nullptr};
    join_waiters(&self);
    pthread_mutex_unlock(mutex);
    {
        const driven_wait wait;
        while (self.woken.load() == 0) futex_wait(&self.woken, 0);
    }
    leave_waiters(self);
    return pthread_mutex_lock(mutex);
}

[[gnu::weak]] int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
    if (!driven_is_on()) return __real_pthread_cond_broadcast(condition);
    const waiters_guard held;
    for (condition_waiter* waiter = g_waiters; waiter; waiter = waiter->next) {
        if (waiter->condition != condition) continue;
        waiter->woken.store(1);
        futex_wake(&waiter->woken);
    }
    return 0;
}

[[gnu::weak]] int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (!driven_is_on()) return __real_pthread_mutex_lock(mutex);
    driven_take_turn();
    if (pthread_mutex_trylock(mutex) == 0) return 0;
    const driven_wait wait;
    return __real_pthread_mutex_lock(mutex);
}
}
