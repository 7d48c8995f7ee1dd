#include "framework/stop.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <unistd.h>

int stop_flag_open(stop_flag* stop) {
    if (stop->fd.load() >= 0) return 0;
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) return -errno;
    stop->fd.store(fd);
    return 0;
}

bool stop_flag_raise(stop_flag* stop) {
    const int saved_errno = errno;
    const bool first = stop->raised.exchange(1) == 0;
    const uint64_t one = 1;
    const int fd = stop->fd.load();
    // A failed write means that the counter is full, which leaves it readable.
    if (fd >= 0 && write(fd, &one, sizeof one) < 0) errno = 0;
    errno = saved_errno;
    return first;
}
