#include "framework/delivered_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct done_path {
    char text[PATH_MAX];
};

// The name under which a file waits to be told from the one that was read; false when it does not
// fit.
bool done_path_of(const char* path, done_path* done) {
    const int len = snprintf(done->text, sizeof done->text, "%s.done", path);
    return len >= 0 && static_cast<size_t>(len) < sizeof done->text;
}

// Never over a file that has come meanwhile. That one takes the other's place, as its sender wants.
void put_back(const char* done, const char* path) {
    if (renameat2(AT_FDCWD, done, AT_FDCWD, path, RENAME_NOREPLACE) == 0) return;
    if (errno == EEXIST) (void)unlink(done);
}

}  // namespace

config_file_mark config_file_mark_of(const struct stat& file) {
    return {.exists = true,
            .dev = file.st_dev,
            .ino = file.st_ino,
            .size = file.st_size,
            .mtime_ns = int64_t{file.st_mtim.tv_sec} * 1000000000 + file.st_mtim.tv_nsec};
}

config_file_mark config_file_look(const char* path) {
    struct stat file = {};
    return stat(path, &file) == 0 ? config_file_mark_of(file) : config_file_mark{};
}

config_file_mark config_file_look(int fd) {
    struct stat file = {};
    return fstat(fd, &file) == 0 ? config_file_mark_of(file) : config_file_mark{};
}

int delivered_file_remove(const char* path, const config_file_mark& read) {
    done_path done;
    if (!done_path_of(path, &done)) return -ENAMETOOLONG;
    if (rename(path, done.text) != 0) return -errno;
    if (config_file_look(done.text) == read) return remove(done.text) == 0 ? 0 : -errno;
    put_back(done.text, path);
    return 0;
}

void delivered_file_restore(const char* path) {
    done_path done;
    if (done_path_of(path, &done)) put_back(done.text, path);
}
