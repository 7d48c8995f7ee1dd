#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/mccbandlist_collector.h"

#include <errno.h>
#include <sys/stat.h>

#include "base/unique_handle.h"
#include "collectors/mccbandlist/mccbandlist_dload.h"
#include "collectors/mccbandlist/mccbandlist_update.h"
#include "framework/row/debug_build.h"
#include "framework/row/optout.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "framework/time/watch.h"
#include "platform/log.h"

namespace {

constexpr char MONITOR[] = "mccbandlist_monitor";
constexpr char STATUS_DIR[] = "/data/vendor/vexastats/51";
constexpr int PROPERTY_LIMIT_S = 300;
constexpr uint64_t INTERVAL_MS = days_ms(90);
constexpr uint64_t TEST_INTERVAL_MS = 300000;

// Events after which the directory holds something new and whole: a file was closed, or came by
// rename, after which nothing closes it.
constexpr uint32_t FILE_CAME = IN_CLOSE_WRITE | IN_CLOSE_NOWRITE | IN_MOVED_TO;
constexpr uint32_t DIR_LOST = WATCH_DIR_GONE | IN_IGNORED | IN_Q_OVERFLOW;

// More looks than an attempt without disturbance takes. What comes beyond waits for the second's
// end.
constexpr unsigned LOOKS_PER_SECOND = 4;

enum class attempt { GOES_ON, WATCH_LOST, ENDED, FAILED };

struct mccbandlist_updater {
    collector_info* row = nullptr;
    mccbandlist_request request{};
    mccbandlist_status status{};
    unsigned long mbl_dl_req_cnt = 0;  // requests filed since the start
    uint32_t last_mask = 0;            // of the last event looked at
    uint64_t second_ms = 0;            // when the second began in which
    unsigned looks = 0;                // so many looks were made

    const stop_flag& stop() const { return row->stop; }
    bool is_stopped() const { return stop_flag_is_raised(row->stop); }
    bool goes_on() const { return !is_stopped() && vexastats_is_dl_enabled(row); }
};

void save_status(mccbandlist_updater* u) {
    u->status.last_dl_done_ts = vexastats_real_time_ms();
    (void)mccbandlist_set_status(&u->status);
}

void prepare(const mccbandlist_updater& u) {
    vexastats_wait_dir_ready(u.row->down_dir, &u.row->stop);
    if (u.is_stopped()) return;
    // Whether the daemon is enabled in time changes nothing: deliberate.
    (void)vexastats_wait_prop_enalbled(PROPERTY_LIMIT_S, u.stop());
    if (mkdir(STATUS_DIR, 0700) != 0 && errno != EEXIST)
        ALOGE("failed to create %s. err:%d\n", STATUS_DIR, errno);
}

// ---- An attempt

// A stop cuts an attempt short: it does not count as completed, and the next start makes it anew.
void end_attempt(mccbandlist_updater* u, int result, const mccbandlist_download& download) {
    if (result == 0) result = mccbandlist_dload_handler(download.path, u->stop());
    if (result == 0) u->status.last_key_ts = download.key_ts;
    if (result != 0 && u->is_stopped()) return;
    save_status(u);
    vexastats_dl_cleanup(u->row);
}

// Puts a look off that would be one too many in its second, but not beyond a stop.
void keep_pace(mccbandlist_updater* u) {
    const uint64_t elapsed_ms = vexastats_mono_time_ms() - u->second_ms;
    if (elapsed_ms < 1000 && u->looks < LOOKS_PER_SECOND) {
        ++u->looks;
        return;
    }
    if (elapsed_ms < 1000) vexastats_sleep_ms(static_cast<int64_t>(1000 - elapsed_ms), u->stop());
    u->second_ms = vexastats_mono_time_ms();
    u->looks = 1;
}

// Looks into the directory, and ends the attempt when the agent is through.
attempt look(mccbandlist_updater* u) {
    keep_pace(u);
    if (u->is_stopped()) return attempt::GOES_ON;
    int status = 0;
    mccbandlist_download download;
    const int result =
        mccbandlist_check_dload_result(u->row->down_dir, u->request, &status, &download);
    if (result == -EEXIST || result == -ENOENT) return attempt::GOES_ON;
    end_attempt(u, result, download);
    return attempt::ENDED;
}

// The watch of an attempt, made afresh only when it or its directory is lost.
struct attempt_watch {
    unique_fd fd{};
    int dir = -1;
    watch_way way{};
};

bool begin_watch(const mccbandlist_updater& u, attempt_watch* watch) {
    watch->fd.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!watch->fd) {
        ALOGE("failed inotify_init. err:%d", errno);
        return false;
    }
    watch_way_to(watch->fd.get(), u.row->down_dir, &watch->way);
    watch->dir = inotify_add_watch(watch->fd.get(), u.row->down_dir, IN_ALL_EVENTS | IN_ONLYDIR);
    if (watch->dir >= 0) return true;
    ALOGE("%s: inotify_add_watch failed. err:%d", MONITOR, errno);
    return false;
}

bool is_lost(const attempt_watch& watch, const inotify_event& event) {
    if (event.wd == watch.dir || (event.mask & IN_Q_OVERFLOW)) return event.mask & DIR_LOST;
    return watch_way_lost(watch.way, event);
}

// Events of directories come of every look into this one, the updater's own among them, which would
// then never rest.
bool is_of_interest(const attempt_watch& watch, const inotify_event& event) {
    if (is_lost(watch, event)) return true;
    return event.wd == watch.dir && !(event.mask & IN_ISDIR);
}

// What a batch of events comes to.
struct batch {
    unsigned events = 0;  // of interest
    bool file_came = false;
    bool is_lost = false;
};

// Others may write to the directory as often as they like. Beyond so many of a batch's events are
// only counted.
constexpr unsigned EVENTS_SAID_MAX = 16;

batch walk_events(mccbandlist_updater* u, const attempt_watch& watch, const watch_buffer& events) {
    batch found;
    watch_for_each(events, [&](const inotify_event& event) {
        if (!is_of_interest(watch, event)) return;
        const bool lost = is_lost(watch, event);
        const bool came = !lost && (event.mask & FILE_CAME);
        found.is_lost = found.is_lost || lost;
        found.file_came = found.file_came || came;
        u->last_mask = event.mask;
        if (++found.events > EVENTS_SAID_MAX) return;
        ALOGI("%s: event.mask 0x%X ", MONITOR, event.mask);
        if (!came) ALOGI("%s: event.mask 0x%X continue.", MONITOR, event.mask);
    });
    if (found.events > EVENTS_SAID_MAX)
        ALOGI("%s: %u more events", MONITOR, found.events - EVENTS_SAID_MAX);
    return found;
}

// One pass: batches of events up to the first with one of interest, and one look however many files
// came with it. A file that was made but is not closed yet is not looked at: the report of success
// may come before the list does.
attempt run_pass(mccbandlist_updater* u, const attempt_watch& watch) {
    batch found;
    while (found.events == 0) {
        watch_buffer events;
        if (!watch_read(watch.fd.get(), &events, u->stop())) {
            ALOGE("%s: failed to read event. err:%d", MONITOR, errno);
            return attempt::FAILED;
        }
        found = walk_events(u, watch, events);
    }
    if (found.is_lost) return attempt::WATCH_LOST;
    if (!found.file_came) return attempt::GOES_ON;
    return look(u);
}

// What came before the watch stood made no event.
attempt watch_and_look(mccbandlist_updater* u, attempt_watch* watch) {
    return begin_watch(*u, watch) ? look(u) : attempt::FAILED;
}

// Runs passes until the attempt is done. Returns whether there is another turn.
bool wait_for_list(mccbandlist_updater* u) {
    attempt_watch watch;
    for (attempt state = attempt::WATCH_LOST;;) {
        ALOGI("%s: wait for new mccbandlist and check if disabled.", MONITOR);
        if (state == attempt::WATCH_LOST) state = watch_and_look(u, &watch);
        if (state == attempt::GOES_ON) state = run_pass(u, watch);
        if (state == attempt::FAILED || u->is_stopped()) return false;
        if (!vexastats_is_dl_enabled(u->row)) {
            ALOGI("%s: dropbox not exist, so exit. %X ", MONITOR, u->last_mask);
            return false;
        }
        if (state == attempt::ENDED) return true;
    }
}

// Waits for the next turn and makes its attempt. Returns whether there is another one.
bool run_turn(mccbandlist_updater* u) {
    mccbandlist_wait_next_turn(INTERVAL_MS, &u->status, u->stop());
    if (!u->goes_on()) return false;
    vexastats_dl_cleanup(u->row);
    if (mccbandlist_send_dload_req(&u->request, u->status.last_key_ts) != 0) {
        ALOGE("%s: dload request failed, wait for next turn", MONITOR);
        save_status(u);
        return u->goes_on();
    }
    ++u->mbl_dl_req_cnt;
    ALOGI("%s: mbl_dl_req_cnt %ld ", MONITOR, static_cast<long>(u->mbl_dl_req_cnt));
    return wait_for_list(u);
}

// How long it is until the next turn.
uint64_t turn_wait_ms(uint64_t interval_ms, uint64_t current_ms, uint64_t last_ms,
                      const char* function) {
    if (last_ms == 0) {
        ALOGI("%s: first run", function);
        return 0;
    }
    const auto elapsed_ms = static_cast<int64_t>(current_ms - last_ms);
    ALOGI("%s: elapsed_t %ld", function, static_cast<long>(elapsed_ms));
    if (elapsed_ms < 0) {
        ALOGI("%s: time backward detected", function);
        return interval_ms;
    }
    if (static_cast<uint64_t>(elapsed_ms) >= interval_ms) {
        ALOGI("%s: need to trigger dl", function);
        return 0;
    }
    return interval_ms - static_cast<uint64_t>(elapsed_ms);
}

}  // namespace

void mccbandlist_wait_next_turn(uint64_t interval_ms, mccbandlist_status* status,
                                const stop_flag& stop) {
    if (g_is_debug_build) interval_ms = TEST_INTERVAL_MS;
    ALOGI("%s: periodicInterval %lu ms", __func__, static_cast<unsigned long>(interval_ms));
    const uint64_t current_ms = vexastats_real_time_ms();
    (void)mccbandlist_get_status(status);
    ALOGI("%s: curr %lu ms", __func__, static_cast<unsigned long>(current_ms));
    ALOGI("%s: last %lu ms", __func__, static_cast<unsigned long>(status->last_dl_done_ts));
    const uint64_t wait_ms =
        turn_wait_ms(interval_ms, current_ms, status->last_dl_done_ts, __func__);
    if (wait_ms == 0) return;
    const uint64_t wait_s = wait_ms / 1000;
    ALOGI("%s: start wait time %lu sec ", __func__, static_cast<unsigned long>(wait_s));
    vexastats_sleep_ms(static_cast<int64_t>(wait_s * 1000), stop);
    ALOGI("%s: end of wait time %lu sec ", __func__, static_cast<unsigned long>(wait_s));
}

int mccbandlist_monitor(collector_info* entry) {
    ALOGI("%s: start ", __func__);
    ALOGI("g_is_debug_build %d ", g_is_debug_build ? 1 : 0);
    mccbandlist_updater updater{.row = entry};
    prepare(updater);
    bool goes_on = updater.goes_on();
    while (goes_on) goes_on = run_turn(&updater);
    ALOGI("%s: exit .", __func__);
    stop_flag_raise(&entry->stop);
    return 0;
}
