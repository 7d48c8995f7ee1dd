// Lines for a standard output that may be anything.
#include "base/standard_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "base/unique_handle.h"

namespace {

// Where a line comes out, and where it goes in.
std::array<unique_fd, 2> output_of(const std::string& kind) {
    int fds[2] = {-1, -1};
    char name[] = "/data/standard_io_XXXXXX";
    if (kind == "socket") (void)socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    if (kind == "pipe") (void)pipe2(fds, O_CLOEXEC);
    if (kind == "file") fds[1] = mkstemp(name), fds[0] = open(name, O_RDONLY | O_CLOEXEC);
    return {unique_fd(fds[0]), unique_fd(fds[1])};
}

void trace_to(const unique_fd& fd, const std::string& line) {
    const unique_fd saved(dup(STDOUT_FILENO));
    dup2(fd.get(), STDOUT_FILENO);
    standard_io_trace(line.data(), line.size());
    dup2(saved.get(), STDOUT_FILENO);
}

std::string read_all(const unique_fd& fd) {
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
    std::string text;
    for (char byte; read(fd.get(), &byte, 1) == 1;) text += byte;
    return text;
}

TEST(StandardIo, LineIsWrittenWhereItCanBeAndNeverWaitedFor) {
    standard_io_ignore_sigpipe();
    for (const std::string kind : {"pipe", "socket", "file"}) {
        SCOPED_TRACE(kind);
        auto [out, in] = output_of(kind);
        trace_to(in, "one\n");
        trace_to(in, "two\n");
        EXPECT_EQ(read_all(out), "one\ntwo\n");
        if (kind == "file") continue;
        const int flags = fcntl(in.get(), F_GETFL);
        fcntl(in.get(), F_SETFL, flags | O_NONBLOCK);
        std::string filled;
        while (write(in.get(), "xxxxxxxxxxxxxxxx", 16) > 0) filled += "xxxxxxxxxxxxxxxx";
        fcntl(in.get(), F_SETFL, flags);
        trace_to(in, std::string(PIPE_BUF, 'y'));
        EXPECT_EQ(fcntl(in.get(), F_GETFL), flags) << "others have it open too";
        EXPECT_EQ(read_all(out), filled);
        trace_to(in, "three\n");
        EXPECT_EQ(read_all(out), "three\n");
        out.reset();
        trace_to(in, "nobody reads it\n");
    }
}

}  // namespace
