// Lines for a standard output that may be anything.
#include "base/standard_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "base/unique_handle.h"

namespace {

// What a line goes to, and where it comes out.
struct output {
    unique_fd in{};
    unique_fd out{};
};

output a_pipe() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
    return {.in = unique_fd(fds[1]), .out = unique_fd(fds[0])};
}

output a_socket() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    return {.in = unique_fd(fds[1]), .out = unique_fd(fds[0])};
}

output a_file() {
    char name[] = "/data/standard_io_XXXXXX";
    unique_fd in(mkstemp(name));
    EXPECT_TRUE(in);
    unique_fd out(open(name, O_RDONLY | O_CLOEXEC));
    return {.in = std::move(in), .out = std::move(out)};
}

void trace_to(const unique_fd& fd, const std::string& line) {
    const unique_fd saved(dup(STDOUT_FILENO));
    dup2(fd.get(), STDOUT_FILENO);
    standard_io_trace(line.data(), line.size());
    dup2(saved.get(), STDOUT_FILENO);
}

size_t fill(const unique_fd& fd) {
    const int flags = fcntl(fd.get(), F_GETFL);
    fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
    size_t bytes = 0;
    for (ssize_t got; (got = write(fd.get(), "xxxxxxxxxxxxxxxx", 16)) > 0;)
        bytes += static_cast<size_t>(got);
    fcntl(fd.get(), F_SETFL, flags);
    return bytes;
}

std::string read_all(const unique_fd& fd) {
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
    std::string text;
    char part[4096];
    for (ssize_t got; (got = read(fd.get(), part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(got));
    return text;
}

TEST(StandardIo, LineIsWrittenWhereItCanBeAndNeverWaitedFor) {
    standard_io_ignore_sigpipe();
    struct {
        const char* what;
        output (*make)();
        bool fills_up;
    } const cases[] = {{"pipe", a_pipe, true}, {"socket", a_socket, true}, {"file", a_file, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        output to = c.make();
        const int flags = fcntl(to.in.get(), F_GETFL);
        trace_to(to.in, "one\n");
        trace_to(to.in, "two\n");
        EXPECT_EQ(read_all(to.out), "one\ntwo\n");
        if (!c.fills_up) continue;
        const size_t filled = fill(to.in);
        trace_to(to.in, std::string(PIPE_BUF, 'y'));
        EXPECT_EQ(fcntl(to.in.get(), F_GETFL), flags) << "others have it open too";
        EXPECT_EQ(read_all(to.out), std::string(filled, 'x'));
        trace_to(to.in, "three\n");
        EXPECT_EQ(read_all(to.out), "three\n");
        to.out.reset();
        trace_to(to.in, "nobody reads it\n");
    }
}

}  // namespace
