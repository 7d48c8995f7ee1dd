#define LOG_TAG "vexastatsd"

#include "sampling/sampling.h"

#include <errno.h>

#include <algorithm>

#include "framework/config/config.h"
#include "framework/config/dload.h"
#include "framework/row/optout.h"
#include "framework/sysfs/sysfs.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "platform/log.h"

namespace {

constexpr uint32_t TIMEZONE_CHANGED_BIT = 1u << 31;
constexpr char CHARGE_COUNTER_FILE[] = "/sys/class/power_supply/bms/charge_counter";
constexpr uint64_t EARLY_START_MS = 120000;
constexpr int32_t PERIODIC_INTERVAL_MS = 60000;
constexpr uint64_t PARAMS_LIFE_MS = days_ms(5);
constexpr int64_t FAILURE_PAUSE_MS = 1000;
constexpr int MAX_FAILURES = 2;

void save_config(collector_info* row) {
    if (row->cfg_update_handler(row) != 0) ALOGE("failed to update cfg file.\n");
}

record_init_req record_of(const sampling_collector& c) {
    return {.row = c.row, .dir = c.kind->record_dir, .prefix = c.kind->record_file};
}

bool begin_record(sampling_collector* c) {
    record_init_req req = record_of(*c);
    c->record.file = vexastats_record_init(&req);
    if (!c->record.file) ALOGE("failed to open record file for %s\n", c->kind->name);
    return c->record.file != nullptr;
}

void pause(const sampling_collector& c) {
    vexastats_sleep_ms(FAILURE_PAUSE_MS, c.stop());
}

// Longer each time, so that a full disk does not keep the phone awake. Returns false when a stop
// ended it.
bool pause_for_storage(sampling_collector* c) {
    return vexastats_sleep_longer(&c->storage_pause, c->stop());
}

void sample_periodically(collector_info* row) {
    row->notify = 0;
    row->interval = PERIODIC_INTERVAL_MS;
}

// Whatever a file that was loaded says: a wait for a kernel that reports nothing never ends.
void keep_kernel_support(sampling_collector* c) {
    if (c->kernel_is_silent && !c->row->no_supported_kernel) {
        c->row->no_supported_kernel = 1;
        save_config(c->row);
    }
    if (c->row->no_supported_kernel) sample_periodically(c->row);
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

bool sampling_read_charge_counter(int32_t* value_uAh) {
    return vexastats_read_sysfs_number(CHARGE_COUNTER_FILE, value_uAh) == 0;
}

int sample_result_number(sample_result result) {
    switch (result) {
        case sample_result::TAKEN:
            return 0;
        case sample_result::NO_MEMORY:
            return -ENOMEM;
        case sample_result::SOURCE_FAILED:
        case sample_result::STORAGE_FAILED:
            break;
    }
    return -EINVAL;
}

bool sampling_begin_record(sampling_collector* c) {
    c->started_early = vexastats_uptime_ms() < EARLY_START_MS;
    for (;;) {
        vexastats_wait_optin(c->row);
        if (!c->row->enabled) return false;
        // Consent that goes meanwhile is waited for again before the first sample.
        if (begin_record(c)) return true;
        if (!pause_for_storage(c)) return false;
    }
}

void sampling_load_params(sampling_collector* c) {
    vexastats_wait_dir_ready(c->row->down_dir, &c->row->stop);
    const dload_req request{.client_id = static_cast<int32_t>(c->row->hdr.client_id),
                            .version = "1.1",
                            .key = c->kind->cfg_key};
    if (vexastats_dload_req(&request) != 0) ALOGE("%s: dload request failed\n", c->kind->monitor);
    if (vexastats_init_params(c->row) != 0) {
        ALOGE("%s init_params failed. use default value\n", c->kind->name);
    }
    c->params_loaded_ms = vexastats_uptime_ms();
}

bool sampling_has_record(sampling_collector* c) {
    if (c->record.file || vexastats_record_reopen(record_of(*c), &c->record)) return true;
    ALOGE("failed to open record file for %s\n", c->kind->name);
    (void)pause_for_storage(c);
    return false;
}

sample_result sampling_write(sampling_collector* c, const grow_array<uint8_t>& sample,
                             const char* caller) {
    write_req req{.row = c->row,
                  .handle = &c->record,
                  .data = sample.data(),
                  .len = sample.size(),
                  .flags = WRITE_BEGIN_NEW};
    const size_t count = vexastats_write_file(&req);
    if (count == req.len) {
        c->storage_pause = {};
        return sample_result::TAKEN;
    }
    ALOGE("%s: failed to write file. cnt:%zu\n", caller, count);
    return sample_result::STORAGE_FAILED;
}

bool sampling_open_notifier(sampling_collector* c) {
    c->notifier.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!c->notifier) ALOGE("%s err:%d\n", c->kind->notifier_failure, errno);
    return static_cast<bool>(c->notifier);
}

void sampling_apply_kernel_support(sampling_collector* c) {
    if (c->started_early && c->row->no_supported_kernel) {
        c->row->no_supported_kernel = 0;
        save_config(c->row);
    }
    keep_kernel_support(c);
}

void sampling_end(sampling_collector* c) {
    stop_flag_raise(&c->row->stop);
}

change_wait sampling_wait_change(const sampling_collector& c, bool bounded, watch_buffer* events) {
    if (bounded) {
        pollfd readable{.fd = c.notifier.get(), .events = POLLIN, .revents = 0};
        const int ready = vexastats_poll(&readable, 1, FIRST_WAIT_LIMIT_MS, c.stop());
        if (ready == 0) return change_wait::TIMED_OUT;
        if (ready < 0) {
            ALOGE("failed to poll wait. err:%d\n", -ready);
            return change_wait::FAILED;
        }
    }
    if (!watch_read(c.notifier.get(), events, c.stop())) {
        ALOGE("%s: failed to read. err:%d\n", c.kind->monitor, errno);
        return change_wait::FAILED;
    }
    return change_wait::EVENTS;
}

void sampling_give_up_notify(sampling_collector* c) {
    ALOGI("%s: inotify timed out. Disable it.\n", c->kind->monitor);
    c->kernel_is_silent = true;
    // Saved first, so that the file keeps what was configured for a kernel that does report.
    c->row->no_supported_kernel = 1;
    save_config(c->row);
    sample_periodically(c->row);
}

void sampling_count_result(sampling_collector* c, sample_result result) {
    switch (result) {
        case sample_result::TAKEN:
            c->failures = 0;
            return;
        case sample_result::STORAGE_FAILED:
            (void)pause_for_storage(c);
            return;
        case sample_result::SOURCE_FAILED:
        case sample_result::NO_MEMORY:
            pause(*c);
            ++c->failures;
            return;
    }
}

pass_result sampling_try_again(sampling_collector* c) {
    pause(*c);
    if (c->failures >= MAX_FAILURES) return pass_result::END;
    ++c->failures;
    return pass_result::AGAIN;
}

pass_result sampling_end_pass(sampling_collector* c) {
    vexastats_wait_optin(c->row);
    vexastats_reload_params(c->row, &c->params_loaded_ms, PARAMS_LIFE_MS);
    keep_kernel_support(c);
    return c->failures <= MAX_FAILURES ? pass_result::AGAIN : pass_result::END;
}
