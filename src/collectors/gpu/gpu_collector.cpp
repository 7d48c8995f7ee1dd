#define LOG_TAG "vexastatsd"

#include "collectors/gpu/gpu_collector.h"

#include <errno.h>
#include <sys/inotify.h>

#include "collectors/gpu/gpu_stats.h"
#include "framework/sysfs/sysfs.h"
#include "framework/time/watch.h"
#include "platform/log.h"
#include "sampling/sampling.h"

namespace {

constexpr sampling_kind KIND = {
    .name = "gpu",
    .monitor = "gpu_monitor",
    .record_dir = "/data/vendor/vexastats/1",
    .record_file = "gpustats.tmp",
    .cfg_key = "gpustats.cfg",
    .notifier_failure = "failed inotify_init",
};

struct gpu_collector : sampling_collector {
    gpu_stats stats{};
    int watch = -1;
    bool has_seen_event = false;  // the kernel reports changes, so waits are not bounded any more
};

bool start(gpu_collector* c) {
    if (!sampling_begin_record(c)) return false;
    sampling_load_params(c);
    if (!sampling_open_notifier(c)) return false;
    sampling_apply_kernel_support(c);
    return true;
}

// ---- Waiting for a change of the load

bool add_watch(gpu_collector* c) {
    c->watch = inotify_add_watch(c->notifier.get(), GPU_BUSY_FILE, IN_MODIFY | IN_ONESHOT);
    if (c->watch < 0) ALOGE("gpu inotify_add_watch failed. err:%d\n", errno);
    return c->watch >= 0;
}

void remove_watch(gpu_collector* c) {
    // A watch that has fired is gone already; removing it then fails without harm.
    (void)inotify_rm_watch(c->notifier.get(), c->watch);
    c->watch = -1;
}

void run_sampling_loop(gpu_collector* c) {
    const sample_result result = poll_gpu_stats(&c->stats, c);
    sampling_count_result(c, result);
}

void sample_on_changes(gpu_collector* c, const watch_buffer& events) {
    watch_for_each(events, [c](const inotify_event& event) {
        if (!(event.mask & IN_MODIFY)) return;  // the end of a watch is reported too
        c->has_seen_event = true;
        if (c->row->notify) run_sampling_loop(c);
    });
}

// ---- The main loop

pass_result wait_and_sample(gpu_collector* c) {
    if (!add_watch(c)) return sampling_try_again(c);

    watch_buffer events;
    const bool bounded = c->started_early && !c->has_seen_event;
    switch (sampling_wait_change(*c, bounded, &events)) {
        case change_wait::TIMED_OUT:
            // With the display off a silent kernel proves nothing: the next wait is bounded again.
            if (vexastats_lcd_off_status()) return pass_result::AGAIN;
            sampling_give_up_notify(c);
            remove_watch(c);
            return pass_result::AGAIN;
        case change_wait::FAILED:
            remove_watch(c);
            return sampling_try_again(c);
        case change_wait::EVENTS:
            sample_on_changes(c, events);
            break;
    }
    return sampling_end_pass(c);
}

pass_result run_pass(gpu_collector* c) {
    // A failure to store is no fault of the sources.
    if (!sampling_has_record(c)) return sampling_end_pass(c);
    if (c->row->notify) return wait_and_sample(c);
    run_sampling_loop(c);
    return sampling_end_pass(c);
}

}  // namespace

int gpu_monitor(collector_info* row) {
    gpu_collector collector{{.kind = &KIND, .row = row}};
    pass_result next = start(&collector) ? pass_result::AGAIN : pass_result::END;
    while (next == pass_result::AGAIN && !stop_flag_is_raised(row->stop))
        next = run_pass(&collector);

    sampling_end(&collector);
    return 0;
}
