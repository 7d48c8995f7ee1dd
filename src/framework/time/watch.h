// Watching for file system changes with inotify.
#pragma once

#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>

#include "framework/time/stop.h"

// A buffer that any one event fits, however long its file name.
struct watch_buffer {
    alignas(inotify_event) char bytes[4096];
    size_t len = 0;
};

// Events that end a watch on a directory: it was removed, renamed or unmounted.
inline constexpr uint32_t WATCH_DIR_GONE = IN_DELETE_SELF | IN_MOVE_SELF;

// The directories above a path, each watched for what becomes of the next one below it. A directory
// that somebody holds open reports its own removal only when it is let go of; its parent reports it
// at once. What is renamed away or put in its place is reported there, too.
struct watch_way {
    static constexpr size_t STEPS_MAX = 16;
    struct step {
        int watch = -1;
        size_t child_at = 0;  // where in the path the name of the next directory begins,
        size_t child_len = 0;
    };
    const char* path = nullptr;
    step steps[STEPS_MAX]{};
    size_t count = 0;
};

// Watches every directory above `path`, from the top down. To be called before `path` itself is
// watched: whatever replaces it afterwards, on any level, makes an event. `path` outlives *way.
// Directories that cannot be watched are left out.
void watch_way_to(int fd, const char* path, watch_way* way);

// Whether the event tells that the path, or a directory above it, went or was replaced. Others of
// the directories above it are of no interest.
bool watch_way_lost(const watch_way& way, const inotify_event& event);

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
