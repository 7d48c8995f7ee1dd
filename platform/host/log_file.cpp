#include "host/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file_io.h"
#include "base/path.h"
#include "base/unique_handle.h"

namespace {

// Opens the buffer's file and takes its lock. Each call has an open file of its own, so the lock
// keeps apart threads as well as processes; it goes with the descriptor.
int open_locked(const char* path, unique_fd* out, size_t* size) {
    for (;;) {
        unique_fd fd(open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
        if (!fd) return -errno;
        while (flock(fd.get(), LOCK_EX) != 0) {
            if (errno != EINTR) return -errno;
        }
        struct stat opened = {};
        struct stat present = {};
        if (fstat(fd.get(), &opened) != 0) return -errno;
        // While this one waited for the lock, its holder may have put another file in its place.
        if (stat(path, &present) != 0 || present.st_ino != opened.st_ino) continue;
        *size = static_cast<size_t>(opened.st_size);
        *out = std::move(fd);
        return 0;
    }
}

// Puts a file without the oldest half in the place of the one that `fd` holds open and locked. A
// new file, so that a reader that has the old one open can finish it.
int drop_oldest_half(const char* name, const char* path, int fd, size_t size) {
    const unique_malloc<char> content(static_cast<char*>(malloc(size)));
    if (!content) return -ENOMEM;
    if (pread_full(fd, content.get(), size, 0) != static_cast<ssize_t>(size)) return -EIO;
    const size_t cut = log_file_cut(content.get(), size);

    char beside[PATH_MAX];
    const int len = snprintf(beside, sizeof beside, "%s/.%s.new", LOG_DIR, name);
    if (len < 0 || static_cast<size_t>(len) >= sizeof beside) return -ENAMETOOLONG;
    const unique_fd kept(open(beside, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!kept) return -errno;
    const ssize_t count = write(kept.get(), content.get() + cut, size - cut);
    if (count == static_cast<ssize_t>(size - cut) && rename(beside, path) == 0) return 0;
    unlink(beside);
    return -EIO;
}

}  // namespace

size_t log_file_cut(const char* content, size_t size) {
    size_t at = 0;
    while (at < size / 2 + size % 2) {
        log_entry_header header;
        if (size - at < sizeof header) return size;
        memcpy(&header, content + at, sizeof header);
        const size_t entry = sizeof header + header.payload_len;
        if (header.header_size != sizeof header || entry > size - at) return size;
        at += entry;
    }
    return at;
}

int log_file_append(const char* name, const log_entry& entry) {
    char path[PATH_MAX];
    if (!path_join(path, LOG_DIR, name)) return -ENAMETOOLONG;
    for (;;) {
        unique_fd fd;
        size_t size = 0;
        int error = open_locked(path, &fd, &size);
        if (error != 0) return error;
        if (size > 0 && size + entry.size() > LOG_FILE_LIMIT_BYTES) {
            error = drop_oldest_half(name, path, fd.get(), size);
            if (error != 0) return error;
            continue;
        }
        const ssize_t count = write(fd.get(), &entry, entry.size());
        if (count == static_cast<ssize_t>(entry.size())) return 0;
        error = count < 0 ? errno : ENOSPC;
        if (count > 0 && ftruncate(fd.get(), static_cast<off_t>(size)) != 0) error = errno;
        return -error;
    }
}
