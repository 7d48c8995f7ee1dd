#include "framework/time/watch.h"

#include <limits.h>
#include <string.h>

#include "framework/time/wait.h"

namespace {

constexpr uint32_t ENTRY_CHANGED = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

bool is_child(const watch_way& way, const watch_way::step& step, const inotify_event& event) {
    return event.len > 0 && strlen(event.name) == step.child_len &&
           memcmp(event.name, way.path + step.child_at, step.child_len) == 0;
}

}  // namespace

void watch_way_to(int fd, const char* path, watch_way* way) {
    *way = {.path = path};
    char ancestor[PATH_MAX];
    const size_t len = strlen(path);
    if (len >= sizeof ancestor) return;
    memcpy(ancestor, path, len + 1);
    for (size_t at = 1; at < len && way->count < watch_way::STEPS_MAX; ++at) {
        if (path[at] != '/') continue;
        ancestor[at] = '\0';
        const int watch =
            inotify_add_watch(fd, ancestor, ENTRY_CHANGED | WATCH_DIR_GONE | IN_ONLYDIR);
        ancestor[at] = '/';
        const size_t child_len = strcspn(path + at + 1, "/");
        if (watch >= 0) {
            way->steps[way->count++] = {.watch = watch, .child_at = at + 1, .child_len = child_len};
        }
    }
}

bool watch_way_lost(const watch_way& way, const inotify_event& event) {
    for (size_t i = 0; i < way.count; ++i) {
        const watch_way::step& step = way.steps[i];
        if (event.wd != step.watch) continue;
        if (event.mask & (WATCH_DIR_GONE | IN_IGNORED)) return true;
        return (event.mask & ENTRY_CHANGED) && is_child(way, step, event);
    }
    return false;
}

bool watch_read(int fd, watch_buffer* buffer, const stop_flag& stop) {
    const ssize_t count = vexastats_read_fd(fd, buffer->bytes, sizeof buffer->bytes, stop);
    buffer->len = count > 0 ? static_cast<size_t>(count) : 0;
    return count > 0;
}
