#include "base/replace_file.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include "base/file_io.h"
#include "base/open_file.h"
#include "base/path.h"

int vexastats_replace_file(const char* path, const void* data, size_t len, bool* opened) {
    if (opened) *opened = false;
    char beside[PATH_MAX];
    if (!path_extend(beside, path, ".new")) return -ENAMETOOLONG;
    return vexastats_replace_file_by(path, beside, data, len, opened);
}

int vexastats_replace_file_by(const char* path, const char* beside, const void* data, size_t len,
                              bool* opened) {
    if (opened) *opened = false;
    unique_fd fd = open_emptied(beside, 0600);
    if (!fd) return -errno;
    if (opened) *opened = true;
    if (!write_full(fd.get(), data, len) || fsync(fd.get()) != 0) {
        const int error = errno ? errno : EIO;
        unlink(beside);
        return -error;
    }
    fd.reset();
    if (rename(beside, path) != 0) {
        const int error = errno;
        unlink(beside);
        return -error;
    }
    return 0;
}
