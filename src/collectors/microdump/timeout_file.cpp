#define LOG_TAG "vexastatsd"

#include "collectors/microdump/timeout_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>

#include "base/path.h"
#include "base/replace_file.h"
#include "base/text_cursor.h"
#include "base/text_file.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

constexpr int LINE_SIZE = 64;

struct timeout_path {
    char text[PATH_MAX];
};

timeout_path path_of(const timeout_file& file) {
    timeout_path path;
    (void)path_join(path.text, file.dir, file.name);
    return path;
}

// Returns 0 or -EINVAL, logged.
int read_start(timeout_file* file) {
    char line[LINE_SIZE];
    const ssize_t len = vexastats_read_line_at(AT_FDCWD, path_of(*file).text, line, sizeof line);
    if (len < 0) {
        ALOGE(len == -ENODATA ? "failed to read %s file. err:%d\n"
                              : "failed to open existing %s file. err:%d\n",
              file->name, static_cast<int>(-len));
        return -EINVAL;
    }
    if (!timeout_file_parse({line, static_cast<size_t>(len)}, &file->start_ms)) {
        ALOGE("invalid %s file format. err:%d\n", file->name, errno);
        return -EINVAL;
    }
    return 0;
}

// `kind` goes into the message for a file that cannot be opened. Returns 0 or -EINVAL, logged.
int write_start(const timeout_file& file, const char* kind) {
    char text[LINE_SIZE];
    const int len =
        snprintf(text, sizeof text, "time_started=%lu", static_cast<unsigned long>(file.start_ms));
    bool opened = false;
    const int result =
        vexastats_replace_file(path_of(file).text, text, static_cast<size_t>(len), &opened);
    if (result == 0) return 0;
    if (opened) {
        ALOGE("failed to write %s file. err:%d\n", file.name, -result);
    } else {
        ALOGE("failed to open %s%s file. err:%d\n", kind, file.name, -result);
    }
    return -EINVAL;
}

}  // namespace

bool timeout_file_parse(std::string_view line, uint64_t* start_ms) {
    text_cursor text(line);
    uint64_t value = 0;
    if (!scan_literal(&text, "time_started=") || !scan_unsigned(&text, &value)) return false;
    *start_ms = value;
    return true;
}

int timeout_file_init(timeout_file* file, bool create) {
    if (!is_dir_exist(file->dir)) return -EINVAL;
    if (read_start(file) == 0) {
        ALOGE("Timeout read from old file: %lu\n", static_cast<unsigned long>(file->start_ms));
        return 0;
    }
    if (!create) return -EINVAL;
    timeout_file fresh = *file;
    fresh.start_ms = vexastats_real_time_ms();
    if (write_start(fresh, "new ") != 0) return -EINVAL;
    file->start_ms = fresh.start_ms;
    return 0;
}

int timeout_file_write_handler(const timeout_file& file) {
    return write_start(file, "");
}
