#include "base/standard_io.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_handle.h"

namespace {

bool is_writable(int fd) {
    pollfd writable{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&writable, 1, 0) == 1 && writable.revents == POLLOUT;
}

// A pipe or terminal may be full by the time that it is written to, for others write there too. Not
// to wait is a property of the open file, which is theirs as well, so the daemon opens one of its
// own for the line. Where it may not, a look beforehand has to do.
void write_to_shared(const char* line, size_t len) {
    const unique_fd own(open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const int fd = own ? own.get() : STDOUT_FILENO;
    if (is_writable(fd)) (void)!write(fd, line, len);
}

}  // namespace

void standard_io_complete() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
        // The lowest free descriptor is this one. Inherited by whatever is started: as it should
        // be.
        // NOLINTNEXTLINE(android-cloexec-open)
        if (open("/dev/null", O_RDWR) < 0) (void)!open("/", O_RDONLY | O_DIRECTORY);
    }
}

void standard_io_ignore_sigpipe() {
    (void)signal(SIGPIPE, SIG_IGN);
}

void standard_io_trace(const char* line, size_t len) {
    struct stat status = {};
    if (fstat(STDOUT_FILENO, &status) != 0) return;
    if (S_ISSOCK(status.st_mode)) {
        (void)send(STDOUT_FILENO, line, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
        write_to_shared(line, len);
    } else {
        (void)!write(STDOUT_FILENO, line, len);
    }
}
