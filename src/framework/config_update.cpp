#include "framework/config_update.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "framework/files.h"
#include "framework/unique_handle.h"
#include "framework/wait.h"
#include "framework/watch.h"
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

// Watches the file, or its directory while there is no such file. Returns false, logged, when
// neither can be watched.
bool watch_config(int fd, const collector_info& row, const config_update_texts& texts,
                  bool* watches_dir) {
    watch_ancestors(fd, row.dl_cfg_file);
    *watches_dir = false;
    if (inotify_add_watch(fd, row.dl_cfg_file, FILE_CHANGED | FILE_REPLACED) >= 0) return true;
    *watches_dir = true;
    if (inotify_add_watch(fd, row.down_dir, FILE_CHANGED | WATCH_DIR_GONE | IN_ONLYDIR) >= 0) {
        return true;
    }
    __android_log_print(ANDROID_LOG_ERROR, texts.tag, "failed inotify_watch on %s. err:%d\n",
                        row.dl_cfg_file, errno);
    return false;
}

bool is_update(const collector_info& row, const config_update_texts& texts, bool watches_dir,
               const inotify_event& event) {
    if (event.mask & WATCH_ENDED) return true;
    if (!watches_dir) return (event.mask & (FILE_CHANGED | FILE_REPLACED)) != 0;
    const char* wanted = file_name(row.dl_cfg_file);
    if (event.len > 0 && strcmp(event.name, wanted) == 0) return true;
    __android_log_print(ANDROID_LOG_INFO, texts.tag, "%sWaiting for %s Created %s", texts.prefix,
                        wanted, event.len > 0 ? event.name : "");
    return false;
}

void wait_for_events(int fd, const collector_info& row, const config_update_texts& texts,
                     bool watches_dir) {
    for (bool updated = false; !updated;) {
        watch_buffer events;
        if (!watch_read(fd, &events, row.stop)) {
            __android_log_print(ANDROID_LOG_ERROR, texts.tag, "%s: failed to read event. err:%d\n",
                                texts.caller, errno);
            return;
        }
        watch_for_each(events, [&](const inotify_event& event) {
            if (!updated) updated = is_update(row, texts, watches_dir, event);
        });
    }
}

config_file_mark mark_of(const struct stat& file) {
    return {.exists = true,
            .dev = file.st_dev,
            .ino = file.st_ino,
            .size = file.st_size,
            .mtime_ns = int64_t{file.st_mtim.tv_sec} * 1000000000 + file.st_mtim.tv_nsec};
}

}  // namespace

config_file_mark config_file_look(const char* path) {
    struct stat file = {};
    return stat(path, &file) == 0 ? mark_of(file) : config_file_mark{};
}

config_file_mark config_file_look(int fd) {
    struct stat file = {};
    return fstat(fd, &file) == 0 ? mark_of(file) : config_file_mark{};
}

void vexastats_wait_config_update(collector_info* row, const config_file_mark& seen,
                                  const config_update_texts& texts) {
    const unique_fd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    bool watches_dir = false;
    bool watching = false;
    if (!fd) {
        __android_log_print(ANDROID_LOG_ERROR, texts.tag, "failed inotify_init. err:%d\n", errno);
    } else {
        watching = watch_config(fd.get(), *row, texts, &watches_dir);
    }
    if (watching) {
        // What came before the watch stood made no event.
        const config_file_mark now = config_file_look(row->dl_cfg_file);
        if (!now.exists || now == seen) wait_for_events(fd.get(), *row, texts, watches_dir);
    }
    if (!vexastats_sleep_ms(SETTLE_MS, row->stop)) return;
    // Without the directory there is nothing that could come: not another failure a second.
    if (fd && !watching) vexastats_wait_dir_ready(row->down_dir, &row->stop);
}
