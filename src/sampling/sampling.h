// What the frequency-triggered collectors share. Such a collector samples every `interval` ms while
// its part of the chip is busy and otherwise waits until the kernel reports a change of a frequency
// file (inotify). A kernel that reports no change in the first five minutes after an early start is
// taken as one that never will: the collector then samples periodically, now and after restarts.
//
// All functions: the row's own thread.
#pragma once

#include <cstdint>

#include "base/grow_array.h"
#include "base/unique_handle.h"
#include "framework/record/record.h"
#include "framework/row/collector_info.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "framework/time/watch.h"

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

// What the fuel gauge counts, in microampere-hours. Returns whether it could be read; *value stays
// as it is otherwise, and a missing file is logged.
bool sampling_read_charge_counter(int32_t* value_uAh);

// What became of a sample; of a loop that takes samples, its last. One that ended before its first
// sample took it.
enum class sample_result {
    TAKEN,
    SOURCE_FAILED,
    NO_MEMORY,
    STORAGE_FAILED,  // there was no record, or it did not take the sample
};

// The number that the log has for it: 0 or a negative errno. Any thread.
int sample_result_number(sample_result result);

// What becomes of the main loop after a pass, or a step of one.
enum class pass_result { AGAIN, END };

// ---- One such collector

// What makes it different from the others, for log texts and files.
struct sampling_kind {
    const char* name = nullptr;     // "cpu"
    const char* monitor = nullptr;  // its thread function
    const char* record_dir = nullptr;
    const char* record_file = nullptr;
    const char* cfg_key = nullptr;  // the configuration file it asks the download agent for
    const char* notifier_failure = nullptr;
};

struct sampling_collector {
    const sampling_kind* kind = nullptr;
    collector_info* row = nullptr;
    bool started_early = false;
    uint64_t params_loaded_ms = 0;
    record_handle record{};
    growing_pause storage_pause{};  // before the next attempt to store, until one succeeds
    unique_fd notifier{};
    int failures = 0;               // in a row
    bool kernel_is_silent = false;  // found out in this run; no file that is loaded changes it

    const stop_flag& stop() const { return row->stop; }
};

// ---- Start: its steps, in their order

// Notes an early start (the phone was booted less than two minutes ago), waits for the owner's
// consent and opens the record. Data that an earlier run left is handed over before the record is
// begun; one that cannot be opened is tried again. Returns whether the collector goes on; failures
// are logged.
bool sampling_begin_record(sampling_collector* c);

// Asks for a configuration and loads the parameters. Failures are logged.
void sampling_load_params(sampling_collector* c);

// Opens the notifier for the frequency files. Returns false, logged, on failure.
bool sampling_open_notifier(sampling_collector* c);

// Gives a kernel that reported no changes another chance after an early start. A row whose kernel
// is known not to report any is set to periodic sampling. A failure to save is logged.
void sampling_apply_kernel_support(sampling_collector* c);

// ---- Samples and their record

// Opens the record again when a failure has taken it (vexastats_record_reopen). Returns whether
// there is one; after a failure, which is logged, the pause is over.
bool sampling_has_record(sampling_collector* c);

// Appends a whole sample to the record. Returns TAKEN, or STORAGE_FAILED, logged with the name of
// the calling function.
sample_result sampling_write(sampling_collector* c, const grow_array<uint8_t>& sample,
                             const char* caller);

// Raises the row's stop flag and closes the record.
void sampling_end(sampling_collector* c);

// ---- Waiting for a change

inline constexpr int64_t FIRST_WAIT_LIMIT_MS = minutes_ms(5);

enum class change_wait { EVENTS, TIMED_OUT, FAILED };

// Reads events from the notifier, for at most FIRST_WAIT_LIMIT_MS when `bounded`. Failures, to
// which a stop belongs (EINTR), are logged.
change_wait sampling_wait_change(const sampling_collector& c, bool bounded, watch_buffer* events);

// The wait was in vain: remembers that for the next starts and turns to periodic sampling. Logged.
void sampling_give_up_notify(sampling_collector* c);

// ---- Failures in a row, parameters

// Counts the result of a sampling loop: one that failed costs a second, one that did not starts the
// count afresh. Storage that is full or was taken away comes back one day: it costs a pause that
// grows, but does not count.
void sampling_count_result(sampling_collector* c, sample_result result);

// After a failed watch or wait: waits a second. END after the third failure in a row.
pass_result sampling_try_again(sampling_collector* c);

// Ends a pass of the main loop: waits for consent where it was withdrawn, and loads the row's
// parameters again once more than five days of uptime have passed since the last time. A kernel
// that was found to report no changes stays one. END after three failures in a row.
pass_result sampling_end_pass(sampling_collector* c);
