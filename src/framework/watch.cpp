#include "framework/watch.h"

#include "framework/wait.h"

bool watch_read(int fd, watch_buffer* buffer, const stop_flag& stop) {
    const ssize_t count = vexastats_read_fd(fd, buffer->bytes, sizeof buffer->bytes, stop);
    buffer->len = count > 0 ? static_cast<size_t>(count) : 0;
    return count > 0;
}
