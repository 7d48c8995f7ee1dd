#define LOG_TAG "vexastatsd"

#include "framework/config.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "framework/clock.h"
#include "framework/config_line.h"
#include "framework/files.h"
#include "framework/unique_handle.h"
#include "framework/version.h"
#include "platform/log.h"

namespace {

bool exists(const char* path) {
    struct stat status;
    return path && stat(path, &status) == 0;
}

// Opens a plain file for reading. Anything else that was left under the name (a FIFO, say) could
// block the reader and counts as a file that cannot be opened.
unique_file open_plain_file(const char* path) {
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) return nullptr;
    struct stat status;
    if (fstat(fd.get(), &status) != 0) return nullptr;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return nullptr;
    }
    unique_file file(fdopen(fd.get(), "r"));
    if (file) (void)fd.release();
    return file;
}

// A row without bounds has 0 for both, and every value becomes 0.
int32_t clamped(int32_t value, int32_t min, int32_t max) {
    return value < min ? min : std::min(value, max);
}

void apply_values(collector_info* row, const config_values& values) {
    row->size = std::clamp(values.size, 0, CONFIG_SIZE_MAX);
    row->threshold = clamped(values.threshold, row->threshold_min, row->threshold_max);
    row->interval = clamped(values.interval, row->interval_min, row->interval_max);
    row->notify = values.notify != 0;
}

bool is_for_row(const collector_info* row, const config_values& values) {
    return values.client_id == static_cast<int64_t>(row->hdr.client_id);
}

// Returns whether the local file counts as loaded.
bool load_local_file(collector_info* row) {
    if (!exists(row->cfg_file)) return false;
    const unique_file file = open_plain_file(row->cfg_file);
    if (!file) ALOGE("failed to open cfg file. err:%d\n", errno);
    if (row->cfg_read_handler) {
        row->cfg_read_handler(file.get(), row);
        return file != nullptr;
    }
    if (!file) return false;

    char line[CONFIG_LINE_SIZE];
    if (!config_read_value_line(file.get(), line)) return true;
    config_values values;
    if (config_parse_line(line, &values) == CONFIG_LOCAL_VALUES && is_for_row(row, values)) {
        apply_values(row, values);
        row->no_supported_kernel = values.no_supported_kernel != 0;
        return true;
    }
    ALOGE("invalid %d config file. re-create. err:%d\n", static_cast<int>(row->hdr.client_id),
          errno);
    return false;
}

enum class download {
    NONE,      // there is none, or it cannot be read
    CONSUMED,  // what it said is in the row; delete it once the local file says so too
    REFUSED,   // left where it is, and refused again at every later load: deliberate
};

download load_downloaded_file(collector_info* row) {
    if (!exists(row->dl_cfg_file)) return download::NONE;
    const unique_file file = open_plain_file(row->dl_cfg_file);
    if (!file) ALOGE("failed to open dloaded cfg file. err:%d\n", errno);
    if (row->cfg_read_handler) {
        row->cfg_read_handler(file.get(), row);
        return file ? download::CONSUMED : download::NONE;
    }
    if (!file) return download::NONE;

    char line[CONFIG_LINE_SIZE];
    if (!config_read_value_line(file.get(), line)) return download::CONSUMED;
    config_values values;
    if (config_parse_line(line, &values) >= CONFIG_DOWNLOADED_VALUES && is_for_row(row, values)) {
        apply_values(row, values);
        return download::CONSUMED;
    }
    ALOGE("invalid %d config file. ignore it. err:%d\n", static_cast<int>(row->hdr.client_id),
          errno);
    return download::REFUSED;
}

int update_local_file(collector_info* row) {
    if (!row->cfg_update_handler) {
        ALOGE("failed to update cfg file.\n");
        return -1;
    }
    const int result = row->cfg_update_handler(row);
    if (result != 0) ALOGE("failed to update cfg file.\n");
    return result;
}

}  // namespace

int vexastats_init_params(collector_info* row) {
    if (!row) return -EINVAL;

    const bool local_loaded = load_local_file(row);
    const download downloaded = load_downloaded_file(row);
    if (downloaded != download::CONSUMED && local_loaded) return 0;

    const int result = update_local_file(row);
    if (downloaded == download::CONSUMED && result == 0 && remove(row->dl_cfg_file) != 0) {
        ALOGE("failed to remove %s. err:%d\n", row->dl_cfg_file, errno);
    }
    return result;
}

void vexastats_reload_params(collector_info* row, uint64_t* loaded_ms, uint64_t life_ms) {
    const uint64_t now_ms = vexastats_uptime_ms();
    if (now_ms - *loaded_ms <= life_ms) return;
    if (vexastats_init_params(row) != 0) ALOGE("update params failed.\n");
    *loaded_ms = now_ms;
}

int vexastats_update_cfg(collector_info* row) {
    char text[CONFIG_LINE_SIZE];
    const int len =
        snprintf(text, sizeof text,
                 "#%s config file. Version: %s\n"
                 "clientid=%d;size=%d;interval=%d;threshold=%d;notify=%d;"
                 "no_supported_kernel=%d\n",
                 row->name, VEXASTATSD_VERSION, static_cast<int>(row->hdr.client_id), row->size,
                 row->interval, row->threshold, row->notify, row->no_supported_kernel);
    const int result = vexastats_replace_file(row->cfg_file, text, static_cast<size_t>(len));
    if (result != 0) {
        ALOGE("failed to open %s cfg. err:%d\n", row->name, -result);
        return -EINVAL;
    }
    return 0;
}
