#include "base/text_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "base/file_io.h"
#include "base/open_file.h"
#include "base/path.h"

int read_max_n_chars_from_file(const char* dir, const char* name, char* buf, int len) {
    buf[0] = '\0';
    char path[257];  // 256 characters at most
    if (!path_join(path, dir, name) || len <= 0) return 0;
    const unique_fd fd = open_text_at(AT_FDCWD, path);
    if (!fd) return 0;
    const ssize_t count = read_full(fd.get(), buf, static_cast<size_t>(len));
    if (count <= 0) {
        buf[0] = '\0';
        return 0;
    }
    buf[count] = '\0';
    return static_cast<int>(count);
}

ssize_t vexastats_read_line_at(int dir_fd, const char* path, char* buf, size_t size) {
    if (size < 2) return -EINVAL;
    const unique_fd fd = open_text_at(dir_fd, path);
    if (!fd) return -errno;
    const ssize_t count = read_to_newline(fd.get(), buf, size - 1);
    if (count <= 0) return -ENODATA;
    const void* newline = memchr(buf, '\n', static_cast<size_t>(count));
    const size_t len = newline ? static_cast<size_t>(static_cast<const char*>(newline) - buf)
                               : static_cast<size_t>(count);
    buf[len] = '\0';
    return static_cast<ssize_t>(len);
}

bool is_dir_exist(const char* path) {
    if (!path) return false;
    const unique_dir dir(opendir(path));
    return dir != nullptr;
}
