// Reading a log buffer: through the file as it grows, and on to the file that replaces it when the
// oldest half goes.
#include "platform/log_read.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>

#include "base/file_io.h"
#include "base/path.h"
#include "base/unique_handle.h"
#include "host/log_file.h"
#include "platform/clock.h"

static_assert(sizeof(logger_entry) == sizeof(log_entry_header));

namespace {

constexpr const char* BUFFER_NAMES[] = {"main",  "radio", "events",   "system",
                                        "crash", "stats", "security", "kernel"};
static_assert(sizeof BUFFER_NAMES / sizeof BUFFER_NAMES[0] == LOG_ID_MAX);

// An entry may be longer than what a read hands over.
constexpr size_t ENTRY_SIZE_MAX = sizeof(log_entry_header) + UINT16_MAX;
constexpr size_t READ_AHEAD_SIZE = size_t{128} * 1024;
static_assert(READ_AHEAD_SIZE > ENTRY_SIZE_MAX);

}  // namespace

struct logger_list {
    char path[64];
    bool blocking = true;
    pid_t pid = 0;
    unique_fd notifier{};  // tells of changes in the directory
    unique_fd file{};      // none while there is no such buffer
    off_t next = 0;        // where in the file the read-ahead ends
    size_t begin = 0;      // what is read ahead and not yet handed over: bytes[begin, end)
    size_t end = 0;
    char bytes[READ_AHEAD_SIZE];

    off_t pos() const { return next - static_cast<off_t>(end - begin); }
};

namespace {

// ---- Entries in the read-ahead

enum class entry_state { WHOLE, NOT_YET, DAMAGED };

entry_state next_entry(const logger_list& list, size_t* size) {
    const size_t left = list.end - list.begin;
    log_entry_header header;
    if (left < sizeof header) return entry_state::NOT_YET;
    memcpy(&header, list.bytes + list.begin, sizeof header);
    if (header.header_size != sizeof header) return entry_state::DAMAGED;
    *size = sizeof header + header.payload_len;
    return left < *size ? entry_state::NOT_YET : entry_state::WHOLE;
}

// Nobody can tell where the next entry begins: what the file holds now is passed over.
void skip_damage(logger_list* list) {
    struct stat status = {};
    if (fstat(list->file.get(), &status) == 0) list->next = std::max(list->next, status.st_size);
    list->begin = list->end = 0;
}

// Returns the bytes handed over, or 0 when there is no whole entry that concerns this reader.
int hand_out_entry(logger_list* list, log_msg* msg) {
    for (;;) {
        size_t size = 0;
        const entry_state state = next_entry(*list, &size);
        if (state == entry_state::NOT_YET) return 0;
        if (state == entry_state::DAMAGED) {
            skip_damage(list);
            return 0;
        }
        const size_t handed_over = std::min<size_t>(size, LOGGER_ENTRY_MAX_LEN);
        memcpy(msg->buf, list->bytes + list->begin, handed_over);
        list->begin += size;
        if (list->pid == 0 || list->pid == msg->entry.pid) return static_cast<int>(handed_over);
    }
}

// Reads on. Returns 1 for more bytes, 0 at the end of the file, or a negative errno.
int read_ahead(logger_list* list) {
    if (!list->file) return 0;
    memmove(list->bytes, list->bytes + list->begin, list->end - list->begin);
    list->end -= list->begin;
    list->begin = 0;
    const ssize_t count = pread(list->file.get(), list->bytes + list->end,
                                sizeof list->bytes - list->end, list->next);
    if (count < 0) return -errno;
    list->end += static_cast<size_t>(count);
    list->next += count;
    return count > 0;
}

// ---- From one file to the next

// The first `size` bytes of a file; null when they cannot be had.
unique_malloc<char> read_start(int fd, size_t size) {
    unique_malloc<char> content(static_cast<char*>(malloc(std::max<size_t>(size, 1))));
    if (content && pread_full(fd, content.get(), size, 0) != static_cast<ssize_t>(size)) {
        return nullptr;
    }
    return content;
}

size_t file_size(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

// Where in the old content the new file begins, or the old one's size when it has nothing of it.
// That is where the oldest half ended, unless another half went before anyone looked.
size_t find_cut(const char* old_content, size_t old_size, const char* kept, size_t kept_size) {
    const auto is_cut = [&](size_t at) {
        return old_size - at <= kept_size && memcmp(old_content + at, kept, old_size - at) == 0;
    };
    size_t at = log_file_cut(old_content, old_size);
    while (at < old_size && !is_cut(at)) {
        log_entry_header header;
        if (old_size - at < sizeof header) return old_size;
        memcpy(&header, old_content + at, sizeof header);
        at += sizeof header + header.payload_len;
    }
    return std::min(at, old_size);
}

// The place in the new file that corresponds to `pos` in the old one: its start, when what was to
// be read next has gone.
off_t moved_pos(int old_fd, int new_fd, off_t pos) {
    const size_t old_size = file_size(old_fd);
    const size_t kept_size = std::min(old_size, file_size(new_fd));
    const unique_malloc<char> old_content = read_start(old_fd, old_size);
    const unique_malloc<char> kept = read_start(new_fd, kept_size);
    if (!old_content || !kept) return 0;
    const size_t cut = find_cut(old_content.get(), old_size, kept.get(), kept_size);
    return std::max<off_t>(pos - static_cast<off_t>(cut), 0);
}

bool is_same_file(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Opens the buffer's file if it is not the one that is open. Returns whether the reader goes on in
// another file, or at another place.
bool follow_file(logger_list* list) {
    struct stat opened = {};
    struct stat present = {};
    if (stat(list->path, &present) != 0) return false;
    if (list->file && fstat(list->file.get(), &opened) == 0 && is_same_file(opened, present)) {
        if (list->next <= opened.st_size) return false;
        list->next = 0;  // somebody emptied it
        list->begin = list->end = 0;
        return true;
    }
    unique_fd file(open(list->path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return false;
    list->next = list->file ? moved_pos(list->file.get(), file.get(), list->pos()) : 0;
    list->begin = list->end = 0;
    list->file = std::move(file);
    return true;
}

// ---- Waiting

// Has the kernel tell of the next change. It comes before the look that finds nothing.
int arm(logger_list* list) {
    alignas(inotify_event) char events[4096];
    while (read(list->notifier.get(), events, sizeof events) > 0) {
    }
    const int watch = inotify_add_watch(list->notifier.get(), LOG_DIR,
                                        IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    return watch < 0 ? -errno : 0;
}

// A signal handler that ran does not end it: the platform's library calls again, too.
int wait_for_change(const logger_list& list) {
    pollfd changed{.fd = list.notifier.get(), .events = POLLIN, .revents = 0};
    while (platform_poll(&changed, 1, -1) < 0) {
        if (errno != EINTR) return -errno;
    }
    return 0;
}

// Gets more of the buffer. Returns 1, 0 when there is no more yet, or a negative errno.
int refill(logger_list* list) {
    const bool moved = follow_file(list);
    const int more = read_ahead(list);
    return more == 0 && moved ? 1 : more;
}

// ---- Opening

// Passes over all but the last `tail` entries that are there.
void skip_to_tail(logger_list* list, unsigned int tail) {
    const size_t size = file_size(list->file.get());
    const unique_malloc<char> content = read_start(list->file.get(), size);
    if (!content) return;
    size_t entries = 0;
    const auto walk = [&](auto visit) {
        size_t at = 0;
        log_entry_header header;
        while (size - at >= sizeof header) {
            memcpy(&header, content.get() + at, sizeof header);
            const size_t entry = sizeof header + header.payload_len;
            if (header.header_size != sizeof header || entry > size - at) break;
            visit(at);
            at += entry;
        }
    };
    walk([&](size_t) { ++entries; });
    size_t index = 0;
    walk([&](size_t at) {
        if (entries - index++ == tail) list->next = static_cast<off_t>(at);
    });
}

}  // namespace

log_id_t android_name_to_log_id(const char* name) {
    const auto* found =
        std::find_if(std::begin(BUFFER_NAMES), std::end(BUFFER_NAMES),
                     [&](const char* known) { return name && !strcmp(known, name); });
    return static_cast<log_id_t>(found - std::begin(BUFFER_NAMES));
}

logger_list* android_logger_list_open(log_id_t id, int mode, unsigned int tail, pid_t pid) {
    if (id >= LOG_ID_MAX) {
        errno = EINVAL;
        return nullptr;
    }
    std::unique_ptr<logger_list> list(new (std::nothrow) logger_list);
    if (!list) {
        errno = ENOMEM;
        return nullptr;
    }
    (void)path_join(list->path, LOG_DIR, BUFFER_NAMES[id]);
    list->blocking = (mode & O_NONBLOCK) == 0;
    list->pid = pid;
    list->notifier.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!list->notifier) return nullptr;
    if (const int error = arm(list.get()); error != 0) {
        errno = -error;
        return nullptr;
    }
    (void)follow_file(list.get());
    if (tail > 0 && list->file) skip_to_tail(list.get(), tail);
    return list.release();
}

int android_logger_list_read(logger_list* list, log_msg* msg) {
    for (bool armed = false;; armed = !armed) {
        // The look that comes before a wait is the one with the watch armed.
        for (int more = 1; more > 0;) {
            if (const int size = hand_out_entry(list, msg); size > 0) return size;
            more = refill(list);
            if (more < 0) return more;
        }
        if (!list->blocking) return -EAGAIN;
        const int error = armed ? wait_for_change(*list) : arm(list);
        if (error != 0) return error;
    }
}

void android_logger_list_free(logger_list* list) {
    delete list;
}
