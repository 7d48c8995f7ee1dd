#define LOG_TAG "vexastatsd"

#include "framework/files/whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "base/file_io.h"
#include "base/open_file.h"
#include "platform/log.h"

bool vexastats_read_whole(int fd, const char* path, const char* caller, size_t max_len,
                          owned_bytes* out) {
    struct stat status = {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<uint64_t>(status.st_size) > max_len) {
        ALOGE("Failed in reading file %s", path);
        return false;
    }
    if (status.st_size == 0) {
        ALOGE("File %s is empty", path);
        return false;
    }
    const auto size = static_cast<size_t>(status.st_size);
    unique_malloc<uint8_t> bytes(static_cast<uint8_t*>(malloc(size + 1)));
    if (!bytes) {
        ALOGE("Error allocating buffer in %s", caller);
        return false;
    }
    const ssize_t count = read_full(fd, bytes.get(), size);
    if (count != status.st_size) {
        ALOGE("Error reading file Bytes %zu of %ld", static_cast<size_t>(count < 0 ? 0 : count),
              static_cast<long>(status.st_size));
        return false;
    }
    bytes.get()[size] = 0;
    *out = {.length = size, .bytes = std::move(bytes)};
    return true;
}

int vexastats_read_file(const char* path, const char* caller, owned_bytes* out) {
    const unique_fd fd = open_text_at(AT_FDCWD, path);
    if (!fd) {
        ALOGE("Coult not  open the file %s", path);
        return -ENOENT;
    }
    return vexastats_read_whole(fd.get(), path, caller, SIZE_MAX - 1, out) ? 0 : -EINVAL;
}
