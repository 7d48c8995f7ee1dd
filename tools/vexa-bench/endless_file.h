// A record without an end on a file that is written over from its start every 32 MiB, so that the
// disk use stays bounded and the kernel's making of new pages is not measured.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "base/unique_handle.h"

class endless_file {
  public:
    explicit endless_file(const std::string& path)
        : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
        if (!fd_) throw std::system_error(errno, std::generic_category(), path);
    }

    // Unbuffered, as records are.
    unique_file stream() {
        unique_file opened(fopencookie(
            this, "w", {.read = nullptr, .write = write, .seek = seek, .close = nullptr}));
        if (!opened) throw std::runtime_error("no stream");
        setvbuf(opened.get(), nullptr, _IONBF, 0);
        return opened;
    }

  private:
    static constexpr off64_t LIMIT_BYTES = off64_t{32} << 20;

    static ssize_t write(void* cookie, const char* data, size_t size) {
        auto* self = static_cast<endless_file*>(cookie);
        const ssize_t count = pwrite(self->fd_.get(), data, size, self->end_ % LIMIT_BYTES);
        if (count > 0) self->end_ += count;
        return count;
    }
    // Records are only ever sought to their end.
    static int seek(void* cookie, off64_t* pos, int) {
        *pos = static_cast<endless_file*>(cookie)->end_;
        return 0;
    }

    unique_fd fd_;
    off64_t end_ = 0;
};
