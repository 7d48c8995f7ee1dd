#define LOG_TAG "vexastatsd"

#include "framework/time/wait_dir.h"

#include <errno.h>
#include <string.h>

#include "base/text_file.h"
#include "base/unique_handle.h"
#include "framework/time/watch.h"
#include "platform/log.h"

namespace {

constexpr size_t NO_LEVEL = static_cast<size_t>(-1);

// A path whose ancestors are its prefixes: level n is the first n characters.
struct dir_chain {
    unique_malloc<char> path;
    unique_malloc<char> level;  // scratch copy, as long as path
    size_t len = 0;
};

bool chain_make(const char* path, dir_chain* chain) {
    chain->path.reset(strdup(path));
    chain->level.reset(strdup(path));
    chain->len = strlen(path);
    return chain->path && chain->level;
}

// The text of level `len`; valid until the next call.
const char* chain_level(dir_chain* chain, size_t len) {
    char* text = chain->level.get();
    memcpy(text, chain->path.get(), len);
    text[len] = '\0';
    return text;
}

size_t chain_parent(const dir_chain& chain, size_t len) {
    while (len > 0) {
        if (chain.path.get()[--len] == '/') return len;
    }
    return NO_LEVEL;
}

size_t chain_child(const dir_chain& chain, size_t len) {
    const char* next = strchr(chain.path.get() + len + 1, '/');
    return next ? static_cast<size_t>(next - chain.path.get()) : chain.len;
}

// The root is no level of its own: above "/data" the chain ends with the empty name, which never
// exists.
size_t chain_deepest_existing(dir_chain* chain) {
    for (size_t len = chain->len; len != NO_LEVEL; len = chain_parent(*chain, len)) {
        if (is_dir_exist(chain_level(chain, len))) return len;
    }
    return NO_LEVEL;
}

enum class walk_result { DONE, FAILED, LEVEL_GONE };

// Whether the level, or what leads to it, went or was replaced.
bool is_level_lost(const watch_way& way, int watch, const watch_buffer& events) {
    bool lost = false;
    watch_for_each(events, [&](const inotify_event& event) {
        const bool is_level = event.wd == watch && (event.mask & (WATCH_DIR_GONE | IN_IGNORED));
        lost = lost || is_level || watch_way_lost(way, event);
    });
    return lost;
}

// Waits until `next` exists in `level`, which is watched before anyone looks.
walk_result wait_for_level(int fd, dir_chain* chain, size_t level, size_t next,
                           const stop_flag& stop) {
    const unique_malloc<char> level_path(strdup(chain_level(chain, level)));
    watch_way way;
    if (level_path) watch_way_to(fd, level_path.get(), &way);
    const int watch = inotify_add_watch(fd, chain_level(chain, level),
                                        IN_CREATE | IN_MOVED_TO | WATCH_DIR_GONE | IN_ONLYDIR);
    if (watch < 0 && (errno == ENOENT || errno == ENOTDIR)) return walk_result::LEVEL_GONE;
    if (watch < 0) {
        ALOGE("failed inotify add %s. err:%d\n", chain_level(chain, level), errno);
        return walk_result::FAILED;
    }
    for (;;) {
        if (is_dir_exist(chain_level(chain, next)) || stop_flag_is_raised(stop)) break;
        if (!is_dir_exist(chain_level(chain, level))) return walk_result::LEVEL_GONE;
        watch_buffer events;
        if (!watch_read(fd, &events, stop)) {
            ALOGE("%s: failed to read event. err:%d\n", "vexastats_wait_dir_ready", errno);
            inotify_rm_watch(fd, watch);
            return walk_result::FAILED;
        }
        if (is_level_lost(way, watch, events)) return walk_result::LEVEL_GONE;
    }
    inotify_rm_watch(fd, watch);
    return walk_result::DONE;
}

walk_result walk_down(int fd, dir_chain* chain, size_t level, const stop_flag& stop) {
    while (level < chain->len) {
        if (stop_flag_is_raised(stop)) return walk_result::DONE;
        const size_t next = chain_child(*chain, level);
        if (!is_dir_exist(chain_level(chain, next))) {
            const walk_result result = wait_for_level(fd, chain, level, next, stop);
            if (result != walk_result::DONE) return result;
            continue;
        }
        level = next;
    }
    return walk_result::DONE;
}

}  // namespace

void vexastats_wait_dir_ready(const char* path, const stop_flag* stop) {
    if (!path || is_dir_exist(path)) return;

    dir_chain chain;
    if (!chain_make(path, &chain)) {
        ALOGE("%s: failed to alloc for dir list\n", __func__);
        return;
    }

    for (bool first = true;; first = false) {
        const unique_fd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        if (!fd) {
            ALOGE("%s: failed inotify_init. err:%d\n", __func__, errno);
            return;
        }
        const size_t level = chain_deepest_existing(&chain);
        if (first) ALOGI("wait until %s is ready\n", path);
        // With no ancestor there is nothing to watch, and the path counts as ready: deliberate.
        if (level == NO_LEVEL) break;
        const walk_result result = walk_down(fd.get(), &chain, level, *stop);
        if (result == walk_result::FAILED) return;
        // A level that was removed or renamed on the way: begin again at what is left.
        if (result == walk_result::DONE) break;
    }
    if (!stop_flag_is_raised(*stop)) ALOGI("%s is now ready\n", path);
}
