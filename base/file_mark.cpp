#include "base/file_mark.h"

file_mark file_mark_of(const struct stat& file) {
    return {.exists = true,
            .dev = file.st_dev,
            .ino = file.st_ino,
            .size = file.st_size,
            .mtime_ns = int64_t{file.st_mtim.tv_sec} * 1000000000 + file.st_mtim.tv_nsec};
}

file_mark file_mark_look(const char* path) {
    struct stat file = {};
    return stat(path, &file) == 0 ? file_mark_of(file) : file_mark{};
}

file_mark file_mark_look(int fd) {
    struct stat file = {};
    return fstat(fd, &file) == 0 ? file_mark_of(file) : file_mark{};
}
