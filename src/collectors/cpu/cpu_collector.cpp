#define LOG_TAG "vexastatsd"

#include "collectors/cpu/cpu_collector.h"

#include <dirent.h>
#include <errno.h>
#include <sys/inotify.h>

#include "collectors/cpu/cpu_stats.h"
#include "collectors/cpu/cpu_times.h"
#include "framework/time/watch.h"
#include "platform/log.h"
#include "sampling/sampling.h"

namespace {

constexpr sampling_kind KIND = {
    .name = "cpu",
    .monitor = "cpu_monitor",
    .record_dir = "/data/vendor/vexastats/2",
    .record_file = "cpustats.tmp",
    .cfg_key = "cpustats.cfg",
    .notifier_failure = "failed inotify_init.",
};

struct cpu_collector : sampling_collector {
    cpu_stats stats{};
    grow_array<int> watches{};  // one per core while the collector waits, otherwise empty
    bool has_waited = false;    // the first wait, which an early start bounds, is over
    unique_dir proc_dir{};
};

// ---- Start-up

bool reserve_watches(cpu_collector* c) {
    if (c->watches.reserve(static_cast<size_t>(c->stats.cpu_count))) return true;
    ALOGE("failed to alloc wd\n");
    return false;
}

void open_processes(cpu_collector* c) {
    c->proc_dir.reset(opendir("/proc"));
    if (!c->proc_dir) {
        ALOGE("Could not open /proc Error %d", errno);
        return;
    }
    vexa_init_proc_tbl(&c->stats.processes.table);
    c->stats.tracks_processes = true;
}

bool start(cpu_collector* c) {
    if (!sampling_begin_record(c)) return false;
    sampling_load_params(c);
    c->stats.cpu_count = read_cpu_count();
    if (c->stats.cpu_count < 0) return false;
    if (!sampling_open_notifier(c) || !reserve_watches(c)) return false;
    sampling_apply_kernel_support(c);
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
    const sample_result result = poll_cpu_stats(&c->stats, c, c->proc_dir.get());
    sampling_count_result(c, result);
}

void sample_on_changes(cpu_collector* c, const watch_buffer& events) {
    watch_for_each(events, [c](const inotify_event& event) {
        if (!(event.mask & IN_MODIFY) || !c->row->notify) return;
        remove_watches(c);
        run_sampling_loop(c);
    });
}

// ---- The main loop

pass_result wait_and_sample(cpu_collector* c) {
    if (!add_watches(c)) return sampling_try_again(c);

    watch_buffer events;
    const bool bounded = c->started_early && !c->has_waited;
    c->has_waited = true;
    switch (sampling_wait_change(*c, bounded, &events)) {
        case change_wait::TIMED_OUT:
            sampling_give_up_notify(c);
            remove_watches(c);
            return pass_result::AGAIN;
        case change_wait::FAILED:
            remove_watches(c);
            if (sampling_try_again(c) == pass_result::END) return pass_result::END;
            break;
        case change_wait::EVENTS:
            sample_on_changes(c, events);
            break;
    }
    return sampling_end_pass(c);
}

pass_result run_pass(cpu_collector* c) {
    // A failure to store is no fault of the sources.
    if (!sampling_has_record(c)) return sampling_end_pass(c);
    if (c->row->notify) return wait_and_sample(c);
    run_sampling_loop(c);
    return sampling_end_pass(c);
}

}  // namespace

int cpu_monitor(collector_info* row) {
    cpu_collector collector{{.kind = &KIND, .row = row}};
    pass_result next = start(&collector) ? pass_result::AGAIN : pass_result::END;
    while (next == pass_result::AGAIN && !stop_flag_is_raised(row->stop))
        next = run_pass(&collector);

    sampling_end(&collector);
    return 0;
}
