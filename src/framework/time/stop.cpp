#include "framework/time/stop.h"

#include <errno.h>
#include <sys/eventfd.h>

int stop_flag_open(stop_flag* stop) {
    if (stop->fd.load() >= 0) return 0;
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) return -errno;
    stop->fd.store(fd);
    return 0;
}

void stop_flag_by_signal(stop_flag* stop, int signal_fd) {
    stop->fd.store(signal_fd);
}

bool stop_flag_raise(stop_flag* stop) {
    const int saved_errno = errno;
    const bool first = stop->raised.exchange(1) == 0;
    const int fd = stop->fd.load();
    // It can only fail when the counter is full, which leaves the descriptor readable as well.
    if (fd >= 0) (void)eventfd_write(fd, 1);
    errno = saved_errno;
    return first;
}
