#include "phone/file_tree.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include "base/unique_handle.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

void make_directories(const std::string& path) {
    if (mkdir(path.c_str(), 0755) == 0) return;
    if (errno == ENOENT) {
        const size_t slash = path.find_last_of('/', path.find_last_not_of('/'));
        if (slash != std::string::npos && slash > 0) {
            make_directories(path.substr(0, slash));
            if (mkdir(path.c_str(), 0755) == 0) return;
        }
    }
    struct stat there = {};
    const int error = errno;
    if (error == EEXIST && stat(path.c_str(), &there) == 0 && S_ISDIR(there.st_mode)) return;
    errno = error;
    fail(path);
}

void write_text_file(const std::string& path, const std::string& text) {
    const unique_fd fd(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd) fail(path);
    const ssize_t count = write(fd.get(), text.data(), text.size());
    if (count < 0) fail(path);
    if (static_cast<size_t>(count) != text.size()) {
        errno = ENOSPC;
        fail(path);
    }
}

void write_file_tree(const std::string& root, const file_tree& tree) {
    std::string last_dir;
    for (const tree_file& file : tree) {
        const std::string path = root + "/" + file.path;
        std::string dir = path.substr(0, path.find_last_of('/'));
        if (dir != last_dir) make_directories(dir);
        if (path.back() != '/') write_text_file(path, file.text);
        last_dir = std::move(dir);
    }
}
