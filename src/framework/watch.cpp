#include "framework/watch.h"

#include <limits.h>
#include <string.h>

#include "framework/wait.h"

void watch_ancestors(int fd, const char* path) {
    char ancestor[PATH_MAX];
    const size_t len = strlen(path);
    if (len >= sizeof ancestor) return;
    memcpy(ancestor, path, len + 1);
    for (char* slash = strrchr(ancestor, '/'); slash && slash != ancestor;
         slash = strrchr(ancestor, '/')) {
        *slash = '\0';
        (void)inotify_add_watch(fd, ancestor, WATCH_DIR_GONE | IN_ONLYDIR);
    }
}

bool watch_read(int fd, watch_buffer* buffer, const stop_flag& stop) {
    const ssize_t count = vexastats_read_fd(fd, buffer->bytes, sizeof buffer->bytes, stop);
    buffer->len = count > 0 ? static_cast<size_t>(count) : 0;
    return count > 0;
}
