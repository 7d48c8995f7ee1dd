// Watching for file system changes with inotify.
#pragma once

#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>

#include "framework/stop.h"

// A buffer that any one event fits, however long its file name.
struct watch_buffer {
    alignas(inotify_event) char bytes[4096];
    size_t len = 0;
};

// Events that end a watch on a directory: it was removed, renamed or unmounted.
inline constexpr uint32_t WATCH_DIR_GONE = IN_DELETE_SELF | IN_MOVE_SELF;

// Watches every ancestor directory of `path` for being removed or renamed itself, either of which
// takes `path` away without an event on `path`. Ancestors that cannot be watched are left out.
void watch_ancestors(int fd, const char* path);

// Waits for events on inotify descriptor `fd` and reads as many as fit. Returns true with
// buffer->len > 0, or false with errno set (EINTR once `stop` is raised).
bool watch_read(int fd, watch_buffer* buffer, const stop_flag& stop);

// Calls visit(const inotify_event&) for every event in the buffer; never reads past its end.
template <class Visit>
void watch_for_each(const watch_buffer& buffer, Visit visit) {
    size_t at = 0;
    while (at + sizeof(inotify_event) <= buffer.len) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.bytes + at);
        const size_t size = sizeof(inotify_event) + event->len;
        if (size > buffer.len - at) return;
        visit(*event);
        at += size;
    }
}
