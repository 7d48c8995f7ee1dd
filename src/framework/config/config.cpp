#define LOG_TAG "vexastatsd"

#include "framework/config/config.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "base/open_file.h"
#include "base/replace_file.h"
#include "base/text_file.h"
#include "base/unique_handle.h"
#include "framework/config/config_line.h"
#include "framework/files/delivered_file.h"
#include "framework/row/version.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

bool exists(const char* path) {
    struct stat status;
    return path && stat(path, &status) == 0;
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

// Only the local file has the last value.
bool read_row_line(void* owner, const char* line, bool is_local) {
    auto* row = static_cast<collector_info*>(owner);
    config_values values;
    const int count = config_parse_line(line, &values);
    const int wanted = is_local ? CONFIG_LOCAL_VALUES : CONFIG_DOWNLOADED_VALUES;
    if (count < wanted || !is_for_row(row, values)) return false;
    apply_values(row, values);
    if (is_local) row->no_supported_kernel = values.no_supported_kernel != 0;
    return true;
}

void read_row_stream(void* owner, FILE* stream) {
    auto* row = static_cast<collector_info*>(owner);
    row->cfg_read_handler(stream, row);
}

int update_row(void* owner) {
    auto* row = static_cast<collector_info*>(owner);
    return row->cfg_update_handler(row);
}

// Returns whether the local file counts as loaded.
bool load_local_file(const config_files& files) {
    if (!exists(files.local)) return false;
    const unique_file file = fopen_regular(files.local, SMALL_FILE_MAX);
    if (!file) ALOGE("failed to open cfg file. err:%d\n", errno);
    if (files.read_stream) {
        files.read_stream(files.owner, file.get());
        return file != nullptr;
    }
    if (!file) return false;

    char line[CONFIG_LINE_SIZE];
    if (!config_read_value_line(file.get(), line)) return true;
    if (files.read_line(files.owner, line, true)) return true;
    ALOGE("invalid %d config file. re-create. err:%d\n", static_cast<int>(files.client_id), errno);
    return false;
}

enum class download {
    NONE,      // there is none, or it cannot be read
    CONSUMED,  // what it said is taken; delete it once the local file says so too
    REFUSED,   // left where it is, and refused again at every later load: deliberate
};

// `read` tells which file it was.
download load_downloaded_file(const config_files& files, file_mark* read) {
    if (files.downloaded) delivered_file_restore(files.downloaded);
    if (!exists(files.downloaded)) return download::NONE;
    const unique_file file = fopen_regular(files.downloaded, SMALL_FILE_MAX);
    if (!file) ALOGE("failed to open dloaded cfg file. err:%d\n", errno);
    if (file) *read = file_mark_look(fileno(file.get()));
    if (files.read_stream) {
        files.read_stream(files.owner, file.get());
        return file ? download::CONSUMED : download::NONE;
    }
    if (!file) return download::NONE;

    char line[CONFIG_LINE_SIZE];
    if (!config_read_value_line(file.get(), line)) return download::CONSUMED;
    if (files.read_line(files.owner, line, false)) return download::CONSUMED;
    ALOGE("invalid %d config file. ignore it. err:%d\n", static_cast<int>(files.client_id), errno);
    return download::REFUSED;
}

// A file that was delivered since `read` was stays, and is loaded the next time.
void remove_downloaded_file(const char* path, const file_mark& read) {
    const int result = delivered_file_remove(path, read);
    if (result != 0) ALOGE("failed to remove %s. err:%d\n", path, -result);
}

int update_local_file(const config_files& files) {
    if (!files.update_local) {
        ALOGE("failed to update cfg file.\n");
        return -1;
    }
    const int result = files.update_local(files.owner);
    if (result != 0) ALOGE("failed to update cfg file.\n");
    return result;
}

}  // namespace

int vexastats_load_config(const config_files& files) {
    const bool local_loaded = load_local_file(files);
    file_mark read;
    const download downloaded = load_downloaded_file(files, &read);
    if (downloaded != download::CONSUMED && local_loaded) return 0;

    const int result = update_local_file(files);
    if (downloaded == download::CONSUMED && result == 0) {
        remove_downloaded_file(files.downloaded, read);
    }
    return result;
}

int vexastats_init_params(collector_info* row) {
    if (!row) return -EINVAL;
    return vexastats_load_config({.local = row->cfg_file,
                                  .downloaded = row->dl_cfg_file,
                                  .client_id = row->hdr.client_id,
                                  .owner = row,
                                  .read_line = read_row_line,
                                  .read_stream = row->cfg_read_handler ? read_row_stream : nullptr,
                                  .update_local = row->cfg_update_handler ? update_row : nullptr});
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
