// What the frequency-triggered collectors share. Such a collector samples every `interval` ms while
// its part of the chip is busy and otherwise waits until the kernel reports a change of a frequency
// file (inotify). A kernel that reports no change in the first five minutes after an early start is
// taken as one that never will: the collector then samples periodically, now and after restarts.
//
// All functions: the row's own thread.
#pragma once

#include <cstdint>

#include "framework/clock.h"
#include "framework/collector_info.h"
#include "framework/watch.h"

// ---- Time stamp of a sample

// The offset from UTC that the last sample was taken at.
struct timezone_memory {
    static constexpr int16_t UNKNOWN_MIN = -3000;
    int16_t offset_min = UNKNOWN_MIN;
};

struct timezone_state {
    int16_t offset_min = 0;  // minutes ahead of UTC, now
    bool changed = false;  // since the last sample, or since the record's header for the first one
};

// Reads the offset and remembers it. The memory of a collector that took no sample yet begins with
// the offset in the row's header.
timezone_state sampling_timezone(timezone_memory* memory, const collector_info& row);

// Bits 0..30: tenths of a second since boot; bit 31: the offset changed and follows the stamp.
uint32_t sampling_time_stamp(bool timezone_changed);

// ---- Start

// Whether the phone was booted less than two minutes ago.
bool sampling_started_early();

// Gives a kernel that reported no changes another chance after an early start. A row whose kernel
// is known not to report any is set to periodic sampling. A failure to save is logged.
void sampling_apply_kernel_support(collector_info* row, bool started_early);

// The wait was in vain: remembers that for the next starts and turns to periodic sampling. Logged
// with the name of the collector's thread function.
void sampling_give_up_notify(collector_info* row, const char* monitor);

// ---- Waiting for a change

inline constexpr int64_t FIRST_WAIT_LIMIT_MS = minutes_ms(5);

enum class change_wait { EVENTS, TIMED_OUT, FAILED };

// Reads events from the notifier, for at most FIRST_WAIT_LIMIT_MS when `bounded`. Failures, to
// which a stop belongs (EINTR), are logged with the name of the collector's thread function.
change_wait sampling_wait_change(int notifier, bool bounded, const char* monitor,
                                 const stop_flag& stop, watch_buffer* events);

// ---- Failures in a row, parameters

struct sampling_failures {
    int count = 0;
};

// Counts the result of a sampling loop: one that failed costs a second, one that did not starts the
// count afresh.
void sampling_count_result(sampling_failures* failures, int result, const stop_flag& stop);

// After a failed watch or wait: waits a second. Returns whether there is another attempt, of three.
bool sampling_try_again(sampling_failures* failures, const stop_flag& stop);

// A second's pause before the next attempt at something that is no fault of the source.
void sampling_pause(const stop_flag& stop);

bool sampling_too_many_failures(const sampling_failures& failures);

// Loads the row's parameters again once more than five days of uptime have passed since *loaded_ms,
// which then becomes now. A failure is logged.
void sampling_reload_params(collector_info* row, uint64_t* loaded_ms);
