// Owners for descriptors, streams, directories and memory: one destructor each.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

// Owns a file descriptor; -1 is "none".
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) close(old);
    }

  private:
    int fd_ = -1;
};

struct file_closer {
    void operator()(FILE* stream) const { (void)fclose(stream); }
};
struct dir_closer {
    void operator()(DIR* dir) const { (void)closedir(dir); }
};
struct malloc_closer {
    void operator()(void* memory) const { free(memory); }
};

using unique_file = std::unique_ptr<FILE, file_closer>;
using unique_dir = std::unique_ptr<DIR, dir_closer>;
template <class T>
using unique_malloc = std::unique_ptr<T, malloc_closer>;
