#define LOG_TAG "vexastatsd"

#include "collectors/cpu/cpu_collector.h"

#include <dirent.h>
#include <errno.h>
#include <sys/inotify.h>

#include "collectors/cpu/cpu_stats.h"
#include "collectors/cpu/cpu_times.h"
#include "collectors/cpu/vexapslist.h"
#include "framework/config.h"
#include "framework/dload.h"
#include "framework/files.h"
#include "framework/optout.h"
#include "framework/sampling.h"
#include "framework/watch.h"
#include "platform/log.h"

namespace {

constexpr char MONITOR[] = "cpu_monitor";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/2";
constexpr char RECORD_FILE[] = "cpustats.tmp";

struct cpu_collector {
    collector_info* row = nullptr;
    bool started_early = false;
    uint64_t params_loaded_ms = 0;
    record_handle record{};
    cpu_stats stats{};
    unique_fd notifier{};
    grow_array<int> watches{};  // one per core while the collector waits, otherwise empty
    bool has_waited = false;    // the first wait, which an early start bounds, is over
    unique_dir proc_dir{};
    sampling_failures failures{};

    const stop_flag& stop() const { return row->stop; }
};

// ---- Start-up

// Opens the collector's record. Data that an earlier run left is handed over first.
bool open_record(cpu_collector* c) {
    record_init_req req{.row = c->row, .dir = RECORD_DIR, .prefix = RECORD_FILE};
    c->record.file = vexastats_record_init(&req);
    if (!c->record.file) ALOGE("failed to open record file for cpu\n");
    return c->record.file != nullptr;
}

void load_params(cpu_collector* c) {
    vexastats_wait_dir_ready(c->row->down_dir, &c->row->stop);
    const dload_req request{.client_id = static_cast<int32_t>(c->row->hdr.client_id),
                            .version = "1.1",
                            .key = "cpustats.cfg",
                            .request_type = 1,
                            .request_timer = 31536000,
                            .conn_type = 1,
                            .conn_timer = 360};
    if (vexastats_dload_req(&request) != 0) ALOGE("%s: dload request failed\n", MONITOR);
    if (vexastats_init_params(c->row) != 0) {
        ALOGE("cpu init_params failed. use default value\n");
    }
    c->params_loaded_ms = vexastats_uptime_ms();
}

bool open_notifier(cpu_collector* c) {
    c->notifier.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!c->notifier) {
        ALOGE("failed inotify_init. err:%d\n", errno);
        return false;
    }
    if (!c->watches.reserve(static_cast<size_t>(c->stats.cpu_count))) {
        ALOGE("failed to alloc wd\n");
        return false;
    }
    return true;
}

void open_processes(cpu_collector* c) {
    c->proc_dir.reset(opendir("/proc"));
    if (!c->proc_dir) {
        ALOGE("Could not open /proc Error %d", errno);
        return;
    }
    vexa_init_proc_tbl();
    c->stats.tracks_processes = true;
}

bool start(cpu_collector* c) {
    c->started_early = sampling_started_early();
    vexastats_wait_optin(c->row);
    if (!c->row->enabled) return false;
    if (!open_record(c)) return false;
    load_params(c);
    c->stats.cpu_count = read_cpu_count();
    if (c->stats.cpu_count < 0) return false;
    if (!open_notifier(c)) return false;
    sampling_apply_kernel_support(c->row, c->started_early);
    open_processes(c);
    return true;
}

// ---- Waiting for a change of frequency

void remove_watches(cpu_collector* c) {
    // A watch that has fired is gone already; removing it then fails without harm.
    for (const int watch : c->watches) (void)inotify_rm_watch(c->notifier.get(), watch);
    c->watches.clear();
}

bool add_watches(cpu_collector* c) {
    c->watches.clear();
    for (int32_t cpu = 0; cpu < c->stats.cpu_count; ++cpu) {
        const int watch = inotify_add_watch(c->notifier.get(), cpu_frequency_path_of(cpu).text,
                                            IN_MODIFY | IN_ONESHOT);
        if (watch < 0) {
            ALOGE("cpu%d inotify_add_watch failed. err:%d\n", cpu, errno);
            remove_watches(c);
            return false;
        }
        (void)c->watches.push_back(watch);
    }
    return true;
}

void run_sampling_loop(cpu_collector* c) {
    const int result = poll_cpu_stats(&c->stats, c->row, &c->record, c->proc_dir.get());
    if (c->stats.storage_failed) {
        // The sources are well: storage that is full or was taken away comes back one day.
        sampling_pause(c->stop());
    } else {
        sampling_count_result(&c->failures, result, c->stop());
    }
}

void sample_on_changes(cpu_collector* c, const watch_buffer& events) {
    watch_for_each(events, [c](const inotify_event& event) {
        if (!(event.mask & IN_MODIFY) || !c->row->notify) return;
        remove_watches(c);
        run_sampling_loop(c);
    });
}

// ---- The main loop. Its steps return whether the loop goes on.

bool end_pass(cpu_collector* c) {
    vexastats_wait_optin(c->row);
    sampling_reload_params(c->row, &c->params_loaded_ms);
    return !sampling_too_many_failures(c->failures);
}

bool wait_and_sample(cpu_collector* c) {
    if (!add_watches(c)) return sampling_try_again(&c->failures, c->stop());

    watch_buffer events;
    const bool bounded = c->started_early && !c->has_waited;
    c->has_waited = true;
    switch (sampling_wait_change(c->notifier.get(), bounded, MONITOR, c->stop(), &events)) {
        case change_wait::TIMED_OUT:
            sampling_give_up_notify(c->row, MONITOR);
            remove_watches(c);
            return true;
        case change_wait::FAILED:
            remove_watches(c);
            return sampling_try_again(&c->failures, c->stop()) && end_pass(c);
        case change_wait::EVENTS:
            sample_on_changes(c, events);
            break;
    }
    return end_pass(c);
}

bool run_pass(cpu_collector* c) {
    // A hand-over that failed has taken the record; a new one is no fault of the sources either.
    if (!c->record.file && !open_record(c)) {
        sampling_pause(c->stop());
        return end_pass(c);
    }
    if (c->row->notify) return wait_and_sample(c);
    run_sampling_loop(c);
    return end_pass(c);
}

}  // namespace

int cpu_monitor(collector_info* row) {
    cpu_collector collector{.row = row};
    bool goes_on = start(&collector);
    while (goes_on && !stop_flag_is_raised(row->stop)) goes_on = run_pass(&collector);

    stop_flag_raise(&row->stop);
    vexastats_record_close(&collector.record);
    vexa_release_proc_tbl();
    return 0;
}
