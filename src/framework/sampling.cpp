#define LOG_TAG "vexastatsd"

#include "framework/sampling.h"

#include <errno.h>

#include "framework/config.h"
#include "framework/wait.h"
#include "platform/log.h"

namespace {

constexpr uint32_t TIMEZONE_CHANGED_BIT = 1u << 31;
constexpr uint64_t EARLY_START_MS = 120000;
constexpr int32_t PERIODIC_INTERVAL_MS = 60000;
constexpr uint64_t PARAMS_LIFE_MS = days_ms(5);
constexpr int64_t FAILURE_PAUSE_MS = 1000;
constexpr int MAX_FAILURES = 2;

void save_config(collector_info* row) {
    if (row->cfg_update_handler(row) != 0) ALOGE("failed to update cfg file.\n");
}

void sample_periodically(collector_info* row) {
    row->notify = 0;
    row->interval = PERIODIC_INTERVAL_MS;
}

}  // namespace

timezone_state sampling_timezone(timezone_memory* memory, const collector_info& row) {
    if (memory->offset_min == timezone_memory::UNKNOWN_MIN) {
        memory->offset_min = row.hdr.timezone_min;
    }
    timezone_state state{.offset_min = vexastats_timezone_min(), .changed = false};
    state.changed = state.offset_min != memory->offset_min;
    memory->offset_min = state.offset_min;
    return state;
}

uint32_t sampling_time_stamp(bool timezone_changed) {
    const auto tenths = static_cast<uint32_t>(vexastats_uptime_ms() / 100);
    return (tenths & ~TIMEZONE_CHANGED_BIT) | (timezone_changed ? TIMEZONE_CHANGED_BIT : 0);
}

bool sampling_started_early() {
    return vexastats_uptime_ms() < EARLY_START_MS;
}

void sampling_apply_kernel_support(collector_info* row, bool started_early) {
    if (started_early && row->no_supported_kernel) {
        row->no_supported_kernel = 0;
        save_config(row);
    }
    if (row->no_supported_kernel) sample_periodically(row);
}

void sampling_give_up_notify(collector_info* row, const char* monitor) {
    ALOGI("%s: inotify timed out. Disable it.\n", monitor);
    // Saved first, so that the file keeps what was configured for a kernel that does report.
    row->no_supported_kernel = 1;
    save_config(row);
    sample_periodically(row);
}

change_wait sampling_wait_change(int notifier, bool bounded, const char* monitor,
                                 const stop_flag& stop, watch_buffer* events) {
    if (bounded) {
        pollfd readable{.fd = notifier, .events = POLLIN, .revents = 0};
        const int ready = vexastats_poll(&readable, 1, FIRST_WAIT_LIMIT_MS, stop);
        if (ready == 0) return change_wait::TIMED_OUT;
        if (ready < 0) {
            ALOGE("failed to poll wait. err:%d\n", -ready);
            return change_wait::FAILED;
        }
    }
    if (!watch_read(notifier, events, stop)) {
        ALOGE("%s: failed to read. err:%d\n", monitor, errno);
        return change_wait::FAILED;
    }
    return change_wait::EVENTS;
}

void sampling_count_result(sampling_failures* failures, int result, const stop_flag& stop) {
    if (result == 0) {
        failures->count = 0;
        return;
    }
    sampling_pause(stop);
    ++failures->count;
}

bool sampling_try_again(sampling_failures* failures, const stop_flag& stop) {
    sampling_pause(stop);
    if (failures->count >= MAX_FAILURES) return false;
    ++failures->count;
    return true;
}

void sampling_pause(const stop_flag& stop) {
    vexastats_sleep_ms(FAILURE_PAUSE_MS, stop);
}

bool sampling_too_many_failures(const sampling_failures& failures) {
    return failures.count > MAX_FAILURES;
}

void sampling_reload_params(collector_info* row, uint64_t* loaded_ms) {
    vexastats_reload_params(row, loaded_ms, PARAMS_LIFE_MS);
}
