#include "input/bounded_input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "base/file_io.h"
#include "base/unique_handle.h"

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(fmt::format("cannot be {}: {}", what, strerror(errno)));
}

// Neither opening nor a look at what it is waits for anybody; reading a pipe waits for its writer.
unique_fd open_input(const std::string& path) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info = {};
    if (!fd || fstat(fd.get(), &info) != 0) fail("opened");
    if (!S_ISREG(info.st_mode) && !S_ISFIFO(info.st_mode))
        throw std::runtime_error("is neither a regular file nor a pipe");
    if (fcntl(fd.get(), F_SETFL, 0) != 0) fail("opened");
    return fd;
}

}  // namespace

std::string read_bounded_input(const std::string& path, size_t max_bytes) {
    constexpr size_t PIECE = 65536;
    const unique_fd fd = open_input(path);
    std::string content;
    for (;;) {
        const size_t have = content.size();
        content.resize(have + PIECE);
        const ssize_t count = read_full(fd.get(), &content[have], PIECE);
        if (count < 0) fail("read");
        content.resize(have + static_cast<size_t>(count));
        if (content.size() > max_bytes)
            throw std::runtime_error(fmt::format("is larger than {} bytes", max_bytes));
        if (static_cast<size_t>(count) < PIECE) return content;
    }
}
