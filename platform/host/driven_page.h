// What a phone in driven time shares: its clocks, and of every thread whether it has the turn,
// waits for it, or waits for something else. The page lies in the phone at /dev/driven/page.
// vexa-phone, which conducts, maps it too; docs/platform.md tells how the two get on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

inline constexpr char DRIVEN_DIR[] = "/dev/driven";
inline constexpr char DRIVEN_PAGE[] = "page";
inline constexpr uint32_t DRIVEN_MAGIC = 0x64727632;
inline constexpr size_t DRIVEN_SLOTS = 64;
inline constexpr int64_t DRIVEN_NEVER = INT64_MAX;

enum driven_state : uint32_t {
    DRIVEN_FREE,
    DRIVEN_STARTING,  // a thread is about to begin in this slot
    DRIVEN_WAITING,   // in the kernel: until its deadline, or for something that another one does
    DRIVEN_READY,     // has what it waited for, wants the turn
    DRIVEN_RUNNING,   // has the turn
    DRIVEN_ENDING,    // will never want it again
};

// One thread. The thread itself moves it from WAITING to READY and from RUNNING to WAITING or
// ENDING; the conductor from READY or WAITING to RUNNING, and from ENDING to FREE.
struct driven_slot {
    std::atomic<uint32_t> state;
    std::atomic<uint32_t> turn;  // futex: 1 once the conductor has given the turn
    std::atomic<int32_t> pid;    // as the phone counts them
    std::atomic<int32_t> tid;
    std::atomic<int32_t> is_wall_clock;  // what the deadline is measured by
    std::atomic<int64_t> deadline_ns;    // DRIVEN_NEVER: none
};

struct driven_page {
    std::atomic<uint32_t> magic;  // set last
    std::atomic<uint32_t> moves;  // futex: counts changes that the conductor waits for
    std::atomic<int64_t> boot_ns;
    std::atomic<int64_t> real_ns;
    std::atomic<uint64_t> shuffle_seed;  // 0: threads keep the turn until they wait
    driven_slot slots[DRIVEN_SLOTS];
};
static_assert(std::atomic<int64_t>::is_always_lock_free);
