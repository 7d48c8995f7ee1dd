// Files that somebody else delivers under a fixed name, again and again: taking one away without
// losing the next.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

// Which file was looked at, so that one that came since can be told from it.
struct config_file_mark {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    int64_t size = 0;
    int64_t mtime_ns = 0;

    bool operator==(const config_file_mark&) const = default;
};

// The mark of the file that is at `path` now, or that `fd` has open; taken before the file is read.
config_file_mark config_file_look(const char* path);
config_file_mark config_file_look(int fd);

// The mark of a file that was looked at otherwise.
config_file_mark config_file_mark_of(const struct stat& file);

// Deletes the file at `path` if it still is the one that was read. Another one that was put in its
// place since, or the same one written again, stays or is put back under its name. To tell which it
// is, it is renamed to path + ".done" for a moment. Returns 0, also when another file is there now,
// or a negative errno; not logged. Any thread.
int delivered_file_remove(const char* path, const config_file_mark& read);

// Puts back what a kill in the midst of delivered_file_remove left under the other name, unless a
// newer file has come. To be called before the file is looked for. Any thread.
void delivered_file_restore(const char* path);
