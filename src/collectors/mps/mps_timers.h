// The collector's two timers, which raise MPS_EVENT_TIMER. They run on the monotonic clock, each
// once per start, in a thread of their own.
#pragma once

#include <cstdint>

#include "framework/time/stop.h"

// A timer's number, which is also its bit in the timer-expired mask.
enum mps_timer : uint32_t {
    MPS_TIMER_FETCH = 1,
    MPS_TIMER_LL_DELAY = 2,
};

// Makes a timer, logged. Without a thread or a descriptor for it there is none. `stop` ends the
// thread and lives as long as the process. Thread: the collector's.
void mps_timer_create(mps_timer timer, const stop_flag& stop);

// Whether it was made. Any thread.
bool mps_timer_exists(mps_timer timer);

// Starts a timer that exists, or starts it anew; 0 seconds: stops it. An expiry under way is not
// taken back. Returns 0, or an errno for one that does not exist. Any thread.
int mps_timer_set(mps_timer timer, uint32_t seconds);

// Unmakes the timers, forgets their expiries and joins their thread, once `stop` is raised. Thread:
// the collector's.
void mps_timers_end();

// Starts the LL delay timer for the campaign's LL delay, logged; a delay of 0 starts nothing, as
// with any timer. Returns false when there is no such timer. Any thread.
bool mps_start_ll_delay_timer();

// What a timer does when it expires: sets its bit in the timer-expired mask and raises
// MPS_EVENT_TIMER. Logged. Thread: the timers'.
void mps_timer_cb(uint32_t value);

// The timer-expired mask, and clearing bits of it, logged. Any thread.
uint32_t mps_timers_expired();
void mps_clear_timer_expired(uint32_t timers);
