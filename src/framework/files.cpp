#define LOG_TAG "vexastatsd"

#include "framework/files.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file_io.h"
#include "base/open_file.h"
#include "framework/text_cursor.h"
#include "platform/log.h"

namespace {

constexpr char TEST_CONFIG_FILE[] = "/data/vendor/vexastats/.property";
constexpr char LCD_BRIGHTNESS_FILE[] = "/sys/class/leds/lcd-backlight/brightness";
constexpr size_t SYSFS_LINE_SIZE = 512;

struct charge_status {
    char name[32];
    uint32_t value;
};

constexpr charge_status CHARGE_STATUS[] = {
    {"Unknown", 0}, {"Charging", 1}, {"Discharging", 2}, {"Not charging", 3}, {"Full", 4},
};

}  // namespace

bool vexastats_get_test_config_file(char* buf, size_t size) {
    const unique_file file = fopen_regular(TEST_CONFIG_FILE, SMALL_FILE_MAX);
    if (!file) return false;
    ALOGD("Found %s\n", TEST_CONFIG_FILE);
    // One byte less than there is room for: the line is at most size - 2 characters.
    if (size < 2 || !fgets(buf, static_cast<int>(size - 1), file.get())) {
        ALOGE("[ERROR] failed to get property");
        return false;
    }
    return true;
}

int read_max_n_chars_from_file(const char* dir, const char* name, char* buf, int len) {
    buf[0] = '\0';
    char path[257];  // 256 characters at most
    const int path_len = snprintf(path, sizeof path, "%s/%s", dir, name);
    if (path_len < 0 || static_cast<size_t>(path_len) >= sizeof path || len <= 0) return 0;
    const unique_fd fd = open_text_at(AT_FDCWD, path);
    if (!fd) return 0;
    const ssize_t count = read_full(fd.get(), buf, static_cast<size_t>(len));
    if (count <= 0) {
        buf[0] = '\0';
        return 0;
    }
    buf[count] = '\0';
    return static_cast<int>(count);
}

bool is_dir_exist(const char* path) {
    if (!path) return false;
    const unique_dir dir(opendir(path));
    return dir != nullptr;
}

ssize_t vexastats_read_line_at(int dir_fd, const char* path, char* buf, size_t size) {
    if (size < 2) return -EINVAL;
    const unique_fd fd = open_text_at(dir_fd, path);
    if (!fd) return -errno;
    const ssize_t count = read_to_newline(fd.get(), buf, size - 1);
    if (count <= 0) return -ENODATA;
    const void* newline = memchr(buf, '\n', static_cast<size_t>(count));
    const size_t len = newline ? static_cast<size_t>(static_cast<const char*>(newline) - buf)
                               : static_cast<size_t>(count);
    buf[len] = '\0';
    return static_cast<ssize_t>(len);
}

void vexastats_log_sysfs_failure(const char* path, ssize_t result) {
    if (result == -ENODATA) {
        ALOGE("failed fget %s\n", path);
    } else {
        ALOGE("failed to open %s. err:%d\n", path, static_cast<int>(-result));
    }
}

int vexastats_read_sysfs(const char* path, char* buf, size_t size) {
    const ssize_t len = vexastats_read_line_at(AT_FDCWD, path, buf, size);
    if (len >= 0) return 0;
    vexastats_log_sysfs_failure(path, len);
    return -EINVAL;
}

int vexastats_read_sysfs_number(const char* path, int32_t* value) {
    char line[SYSFS_LINE_SIZE];
    if (vexastats_read_sysfs(path, line, sizeof line) != 0) return -EINVAL;
    text_cursor text{std::string_view(line)};
    return scan_int(&text, value) ? 0 : -ENODATA;
}

int chg_stat_txt_to_enum(const char* text, uint32_t* out) {
    if (!text) return -EINVAL;
    *out = 0;
    for (const charge_status& status : CHARGE_STATUS) {
        if (strcmp(text, status.name) == 0) *out = status.value;
    }
    return 0;
}

bool vexastats_lcd_off_status() {
    char brightness[32];
    if (vexastats_read_sysfs(LCD_BRIGHTNESS_FILE, brightness, sizeof brightness) != 0) {
        ALOGE("failed to read %s\n", LCD_BRIGHTNESS_FILE);
        return false;
    }
    return strcmp(brightness, "0") == 0;
}

int vexastats_replace_file(const char* path, const void* data, size_t len, bool* opened) {
    if (opened) *opened = false;
    char beside[PATH_MAX];
    const int path_len = snprintf(beside, sizeof beside, "%s.new", path);
    if (path_len < 0 || static_cast<size_t>(path_len) >= sizeof beside) return -ENAMETOOLONG;
    return vexastats_replace_file_by(path, beside, data, len, opened);
}

int vexastats_replace_file_by(const char* path, const char* beside, const void* data, size_t len,
                              bool* opened) {
    if (opened) *opened = false;
    unique_fd fd = open_emptied(beside, 0600);
    if (!fd) return -errno;
    if (opened) *opened = true;
    if (!write_full(fd.get(), data, len) || fsync(fd.get()) != 0) {
        const int error = errno ? errno : EIO;
        unlink(beside);
        return -error;
    }
    fd.reset();
    if (rename(beside, path) != 0) {
        const int error = errno;
        unlink(beside);
        return -error;
    }
    return 0;
}

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
