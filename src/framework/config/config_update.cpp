#include "framework/config/config_update.h"

#include <errno.h>
#include <string.h>

#include "base/unique_handle.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "framework/time/watch.h"
#include "platform/log.h"

namespace {

constexpr int64_t SETTLE_MS = 1000;

// A file that is moved in is as new as one that is created.
constexpr uint32_t FILE_CHANGED = IN_CREATE | IN_MODIFY | IN_MOVED_TO;

// The watched file was renamed, or lost its name to another one.
constexpr uint32_t FILE_REPLACED = IN_MOVE_SELF | IN_ATTRIB;

// What makes the wait end, to look afresh: the watched file or directory went away, or events were
// lost.
constexpr uint32_t WATCH_ENDED = IN_IGNORED | WATCH_DIR_GONE | IN_Q_OVERFLOW;

const char* file_name(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

struct config_watch {
    watch_way way{};  // to the directory
    int file = -1;    // the file, or
    int dir = -1;     // its directory while there is no such file
};

// Watches the file, or its directory while there is no such file. Returns false, logged, when
// neither can be watched.
bool watch_config(int fd, const collector_info& row, const config_update_texts& texts,
                  config_watch* watch) {
    watch_way_to(fd, row.down_dir, &watch->way);
    watch->file = inotify_add_watch(fd, row.dl_cfg_file, FILE_CHANGED | FILE_REPLACED);
    if (watch->file >= 0) return true;
    watch->dir = inotify_add_watch(fd, row.down_dir, FILE_CHANGED | WATCH_DIR_GONE | IN_ONLYDIR);
    if (watch->dir >= 0) return true;
    __android_log_print(ANDROID_LOG_ERROR, texts.tag, "failed inotify_watch on %s. err:%d\n",
                        row.dl_cfg_file, errno);
    return false;
}

bool is_update(const collector_info& row, const config_update_texts& texts,
               const config_watch& watch, const inotify_event& event) {
    if (event.mask & WATCH_ENDED) return true;
    if (event.wd != watch.file && event.wd != watch.dir) return watch_way_lost(watch.way, event);
    if (event.wd == watch.file) return (event.mask & (FILE_CHANGED | FILE_REPLACED)) != 0;
    const char* wanted = file_name(row.dl_cfg_file);
    if (event.len > 0 && strcmp(event.name, wanted) == 0) return true;
    __android_log_print(ANDROID_LOG_INFO, texts.tag, "%sWaiting for %s Created %s", texts.prefix,
                        wanted, event.len > 0 ? event.name : "");
    return false;
}

void wait_for_events(int fd, const collector_info& row, const config_update_texts& texts,
                     const config_watch& watch) {
    for (bool updated = false; !updated;) {
        watch_buffer events;
        if (!watch_read(fd, &events, row.stop)) {
            __android_log_print(ANDROID_LOG_ERROR, texts.tag, "%s: failed to read event. err:%d\n",
                                texts.caller, errno);
            return;
        }
        watch_for_each(events, [&](const inotify_event& event) {
            if (!updated) updated = is_update(row, texts, watch, event);
        });
    }
}

}  // namespace

void vexastats_wait_config_update(collector_info* row, const file_mark& seen,
                                  const config_update_texts& texts) {
    const unique_fd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    config_watch watch;
    bool watching = false;
    if (!fd) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, "failed inotify_init. err:%d\n", errno);
    } else {
        watching = watch_config(fd.get(), *row, texts, &watch);
    }
    if (watching) {
        // What came before the watch stood made no event.
        const file_mark now = file_mark_look(row->dl_cfg_file);
        if (!now.exists || now == seen) wait_for_events(fd.get(), *row, texts, watch);
    }
    if (!vexastats_sleep_ms(SETTLE_MS, row->stop)) return;
    // Without the directory there is nothing that could come: not another failure a second.
    if (fd && !watching) vexastats_wait_dir_ready(row->down_dir, &row->stop);
}
