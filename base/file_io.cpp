#include "base/file_io.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

ssize_t read_some(int fd, void* buf, size_t size) {
    ssize_t count;
    do {
        count = read(fd, buf, size);
    } while (count < 0 && errno == EINTR);
    return count;
}

ssize_t read_full(int fd, void* buf, size_t size) {
    size_t have = 0;
    while (have < size) {
        const ssize_t count = read_some(fd, static_cast<char*>(buf) + have, size - have);
        if (count < 0) return -1;
        if (count == 0) break;
        have += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(have);
}

ssize_t pread_full(int fd, void* buf, size_t size, off_t offset) {
    size_t have = 0;
    while (have < size) {
        const ssize_t count = pread(fd, static_cast<char*>(buf) + have, size - have,
                                    offset + static_cast<off_t>(have));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -1;
        if (count == 0) break;
        have += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(have);
}

ssize_t read_to_newline(int fd, char* buf, size_t size) {
    size_t have = 0;
    while (have < size) {
        const ssize_t count = read_some(fd, buf + have, size - have);
        if (count < 0) return -1;
        if (count == 0) break;
        const bool found = memchr(buf + have, '\n', static_cast<size_t>(count)) != nullptr;
        have += static_cast<size_t>(count);
        if (found) break;
    }
    return static_cast<ssize_t>(have);
}

bool write_full(int fd, const void* data, size_t len) {
    const char* at = static_cast<const char*>(data);
    while (len > 0) {
        const ssize_t count = write(fd, at, len);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) {
            errno = ENOSPC;
            return false;
        }
        at += count;
        len -= static_cast<size_t>(count);
    }
    return true;
}
