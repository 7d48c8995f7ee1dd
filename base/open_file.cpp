#include "base/open_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// O_NONBLOCK keeps the call from waiting for the other end of a FIFO; a regular file ignores it.
constexpr int SAFELY = O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW;
constexpr int DIRECTORY = O_RDONLY | O_CLOEXEC | O_DIRECTORY | O_NOFOLLOW;

unique_fd refused(int error) {
    errno = error;
    return unique_fd();
}

// The open file when it is what a reader may have, none with errno set otherwise.
unique_fd checked(unique_fd fd, off_t max_len, bool one_name) {
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0) return refused(errno);
    if (!S_ISREG(status.st_mode)) return refused(EINVAL);
    if (status.st_size > max_len) return refused(EFBIG);
    if (one_name && status.st_nlink != 1) return refused(EMLINK);
    return fd;
}

}  // namespace

unique_fd open_regular(const char* path, off_t max_len) {
    return checked(open_text_at(AT_FDCWD, path), max_len, false);
}

unique_fd open_text_at(int dir_fd, const char* path) {
    return unique_fd(openat(dir_fd, path, O_RDONLY | SAFELY));
}

unique_file fopen_regular(const char* path, off_t max_len) {
    return stream_of(open_regular(path, max_len), "re");
}

unique_fd open_update(const char* path, off_t max_len) {
    return checked(unique_fd(openat(AT_FDCWD, path, O_RDWR | SAFELY)), max_len, false);
}

unique_fd open_new(const char* path, mode_t mode) {
    return unique_fd(openat(AT_FDCWD, path, O_RDWR | O_CREAT | O_EXCL | SAFELY, mode));
}

// Emptied only when it is known what it is.
unique_fd open_emptied(const char* path, mode_t mode) {
    unique_fd fd(openat(AT_FDCWD, path, O_RDWR | O_CREAT | SAFELY, mode));
    fd = checked(std::move(fd), INT64_MAX, false);
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0) return refused(errno);
    if (status.st_size > 0 && ftruncate(fd.get(), 0) != 0) return refused(errno);
    return fd;
}

unique_file stream_of(unique_fd fd, const char* mode) {
    unique_file file(fd ? fdopen(fd.get(), mode) : nullptr);
    if (file) (void)fd.release();
    return file;
}

unique_dir open_unlinked_dir(const char* path) {
    unique_fd fd(open(path, DIRECTORY));
    unique_dir dir(fd ? fdopendir(fd.get()) : nullptr);
    if (dir) (void)fd.release();
    return dir;
}

unique_fd open_parent(const char* path, const char** name) {
    const char* slash = strrchr(path, '/');
    *name = slash ? slash + 1 : path;
    if (!slash) return unique_fd(open(".", DIRECTORY));
    char directory[PATH_MAX];
    const auto len = static_cast<size_t>(slash - path);
    if (len >= sizeof directory) return refused(ENAMETOOLONG);
    memcpy(directory, path, len);
    directory[len] = '\0';
    return unique_fd(open(len > 0 ? directory : "/", DIRECTORY));
}

unique_fd open_outsider(const char* directory, const char* name, off_t max_len) {
    const unique_fd dir(open(directory, DIRECTORY));
    if (!dir) return refused(errno == ENOTDIR ? ELOOP : errno);
    return checked(open_text_at(dir.get(), name), max_len, true);
}
