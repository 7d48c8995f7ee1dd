// Properties on Linux: the file /dev/properties/NAME holds the value of property NAME.
#include "platform/properties.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "base/file_io.h"
#include "base/path.h"
#include "base/unique_handle.h"
#include "host/driven.h"

namespace {

constexpr char PROPERTY_DIR[] = "/dev/properties";

// Names are single path components; a leading dot is kept for files that are being written.
bool is_property_name(const char* key) {
    return key && key[0] && key[0] != '.' && !strchr(key, '/');
}

// Reads the value of an existing property. Returns its length, or 0.
size_t read_property(const char* key, char* value) {
    char path[PATH_MAX];
    if (!path_join(path, PROPERTY_DIR, key)) return 0;
    const unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd) return 0;
    const ssize_t len = read_full(fd.get(), value, PROPERTY_VALUE_MAX - 1);
    return len < 0 ? 0 : static_cast<size_t>(len);
}

int write_new_file(const char* path, const char* value, size_t len) {
    const unique_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!fd) return -errno;
    const ssize_t count = write(fd.get(), value, len);
    if (count < 0) return -errno;
    return static_cast<size_t>(count) == len ? 0 : -ENOSPC;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    if (driven_is_on()) driven_take_turn();
    size_t len = is_property_name(key) ? read_property(key, value) : 0;
    if (len == 0 && default_value) {
        len = std::min<size_t>(strlen(default_value), PROPERTY_VALUE_MAX - 1);
        memcpy(value, default_value, len);
    }
    value[len] = '\0';
    return static_cast<int>(len);
}

int property_set(const char* key, const char* value) {
    if (driven_is_on()) driven_take_turn();
    if (!is_property_name(key)) return -EINVAL;
    const size_t len = value ? strlen(value) : 0;
    if (len > PROPERTY_VALUE_MAX - 1) return -EINVAL;

    // Written beside it and renamed, so that a reader finds the old value or the new one. The name
    // is the thread's own: two setters at once do not meet.
    char path[PATH_MAX];
    char beside[PATH_MAX];
    const bool fits = path_join(path, PROPERTY_DIR, key);
    const int beside_len = snprintf(beside, sizeof beside, "%s/.new.%d", PROPERTY_DIR, gettid());
    if (!fits || beside_len < 0) return -ENAMETOOLONG;
    int error = write_new_file(beside, value ? value : "", len);
    if (error == 0 && rename(beside, path) != 0) error = -errno;
    if (error != 0) unlink(beside);
    return error;
}
