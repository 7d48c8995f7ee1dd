// Telling files apart that come one after the other under the same name.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

// Which file was looked at, so that one that came since can be told from it.
struct file_mark {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    int64_t size = 0;
    int64_t mtime_ns = 0;

    bool operator==(const file_mark&) const = default;
};

// The mark of the file that is at `path` now, or that `fd` has open; taken before the file is read.
file_mark file_mark_look(const char* path);
file_mark file_mark_look(int fd);

// The mark of a file that was looked at otherwise.
file_mark file_mark_of(const struct stat& file);
