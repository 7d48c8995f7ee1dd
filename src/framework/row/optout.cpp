#define LOG_TAG "vexastatsd"

#include "framework/row/optout.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <bit>

#include "base/unique_handle.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "framework/time/watch.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/properties.h"

namespace {

constexpr char DROPBOX_ROOT[] = "/data/vendor/vexa/up";
constexpr char ENABLED_PROPERTY[] = "vendor.orb.vexa.enabled";
constexpr int PROPERTY_POLL_S = 5;
constexpr int64_t WAKE_PAUSE_MS = 2;

// Directories come and go by rename as well as by mkdir and rmdir.
constexpr uint32_t CHILD_CHANGED = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM;

enum class watch_end { ROOT_GONE, STOPPED };

struct root_watch {
    watch_way way{};
    int watch = -1;
};

// Brings the rows in step after one buffer of events; returns whether the root itself is gone.
bool handle_events(optout_context* context, const root_watch& root, const watch_buffer& events) {
    bool root_gone = false;
    watch_for_each(events, [&](const inotify_event& event) {
        if (event.mask & IN_Q_OVERFLOW) {
            // Events were lost, the root's end perhaps among them: look at everything, afresh.
            root_gone = true;
        } else if (event.wd != root.watch) {
            if (watch_way_lost(root.way, event)) root_gone = true;
        } else {
            if (event.mask & CHILD_CHANGED) optout_handle(context, 0);
            if (event.mask & (WATCH_DIR_GONE | IN_IGNORED)) root_gone = true;
        }
    });
    return root_gone;
}

// Synchronises and then watches the dropbox root, with a fresh descriptor in *notifier, until it
// goes away or the monitor has to end.
watch_end watch_dropbox_root(optout_context* context, unique_fd* notifier) {
    optout_handle(context, 0);

    notifier->reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const int fd = notifier->get();
    if (fd < 0) {
        ALOGE("failed inotify_init. err:%d\n", errno);
        return watch_end::STOPPED;
    }
    root_watch root;
    watch_way_to(fd, DROPBOX_ROOT, &root.way);
    root.watch = inotify_add_watch(fd, DROPBOX_ROOT, CHILD_CHANGED | WATCH_DIR_GONE | IN_ONLYDIR);
    if (root.watch < 0 && (errno == ENOENT || errno == ENOTDIR)) return watch_end::ROOT_GONE;
    if (root.watch < 0) {
        ALOGE("failed inotify_add_watch. err:%d\n", errno);
        return watch_end::STOPPED;
    }
    optout_handle(context, 0);  // what came or went before the watch stood

    while (!stop_flag_is_raised(context->stop)) {
        watch_buffer events;
        if (!watch_read(fd, &events, context->stop)) {
            ALOGE("%s: failed to read event. err:%d\n", "optout_monitor", errno);
            return watch_end::STOPPED;
        }
        if (handle_events(context, root, events)) {
            optout_handle(context, 0);
            return watch_end::ROOT_GONE;
        }
    }
    return watch_end::STOPPED;
}

void tell_thread(const collector_info& row) {
    if (row.consent_handler) row.consent_handler(row);
}

void sync_row(collector_info* row, bool missing, bool is_dir) REQUIRES(row->mutex) {
    if (missing && row->enabled) {
        row->enabled = 0;
        ALOGI("%s disabled\n", row->name);
        tell_thread(*row);
    } else if (is_dir && !row->enabled) {
        row->enabled = 1;
        ALOGI("%s enabled\n", row->name);
        row->cond.notify_all();
        tell_thread(*row);
    }
}

void terminate_row(collector_info* row, bool missing) REQUIRES(row->mutex) {
    // A row that is opted out in this very moment is not terminated here: deliberate. Its stop
    // flag, which is raised next, ends it.
    if (missing && row->enabled) {
        row->enabled = 0;
        ALOGI("%s disabled\n", row->name);
        tell_thread(*row);
        return;
    }
    row->terminate = 1;
    ALOGI("%s Terminated\n", row->name);
    row->cond.notify_all();
    tell_thread(*row);
}

bool is_any_row_inside(const optout_context& context) {
    for (int32_t i = 0; i < context.count; i++) {
        if (interruptible_is_inside(context.table[i].library_calls)) return true;
    }
    return false;
}

// Gives the rows that read the log something to read, until they have left. One line is enough, for
// the log keeps it; ever rarer ones follow in case it got lost.
void wake_log_readers(const optout_context& context) {
    for (unsigned round = 1; is_any_row_inside(context); ++round) {
        if (std::has_single_bit(round)) ALOGI("%s", INTERRUPTIBLE_WAKE_UP);
        // A plain pause: every stop flag that a wait could watch is raised by now.
        platform_poll(nullptr, 0, WAKE_PAUSE_MS);
    }
}

}  // namespace

int optout_monitor(optout_context* context) {
    // Closed last: the kernel takes its time over it (5 to 15 ms), in which the collectors end too.
    unique_fd notifier;
    do {
        vexastats_wait_dir_ready(DROPBOX_ROOT, &context->stop);
    } while (watch_dropbox_root(context, &notifier) == watch_end::ROOT_GONE &&
             !stop_flag_is_raised(context->stop));

    stop_flag_raise(&context->stop);
    optout_handle(context, 1);
    optout_stop_rows(context);
    return 0;
}

void optout_handle(optout_context* context, int terminate) {
    for (int32_t i = 0; i < context->count; i++) {
        collector_info* row = &context->table[i];
        if (!row->running || stop_flag_is_raised(row->stop)) continue;

        struct stat status = {};
        const int error = stat(row->up_dir, &status) == 0 ? 0 : errno;
        const vexa_lock lock(row->mutex);
        if (terminate) {
            terminate_row(row, error == ENOENT);
        } else {
            sync_row(row, error == ENOENT, error == 0 && S_ISDIR(status.st_mode));
        }
    }
}

void optout_stop_rows(optout_context* context) {
    for (int32_t i = 0; i < context->count; i++) {
        collector_info* row = &context->table[i];
        if (!row->running) continue;
        stop_flag_raise(&row->stop);
        const vexa_lock lock(row->mutex);
        row->cond.notify_all();
    }
    wake_log_readers(*context);
}

void vexastats_wait_optin(collector_info* row) {
    if (!row || row->enabled) return;
    const vexa_lock lock(row->mutex);
    while (!row->enabled && !row->terminate && !stop_flag_is_raised(row->stop)) {
        row->cond.wait(row->mutex);
    }
    row->terminate = 0;
}

int vexastats_wait_prop_enalbled(int timeout_s, const stop_flag& stop) {
    char value[PROPERTY_VALUE_MAX];
    property_get(ENABLED_PROPERTY, value, "0");
    for (int waited_s = 0; strcmp(value, "1") != 0; waited_s += PROPERTY_POLL_S) {
        if (stop_flag_is_raised(stop)) return -EINVAL;
        if (waited_s >= timeout_s) {
            ALOGI("%s() wait time expired %d\n", __func__, timeout_s);
            return -EINVAL;
        }
        ALOGI("%s() waiting for %s...\n", __func__, ENABLED_PROPERTY);
        vexastats_sleep_ms(int64_t{PROPERTY_POLL_S} * 1000, stop);
        property_get(ENABLED_PROPERTY, value, "0");
    }
    return 0;
}
