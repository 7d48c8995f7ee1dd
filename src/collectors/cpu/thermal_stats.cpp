#define LOG_TAG "vexastatsd"

#include "collectors/cpu/thermal_stats.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <string_view>

#include "base/path.h"
#include "base/text_cursor.h"
#include "base/text_file.h"
#include "base/unique_handle.h"
#include "framework/sysfs/sysfs.h"
#include "platform/log.h"

namespace {

constexpr char THERMAL_DIR[] = "/sys/class/thermal";
constexpr std::string_view ZONE_PREFIX = "thermal_zone";
constexpr size_t MAX_ZONES = UINT16_MAX;
constexpr size_t SYSFS_LINE_SIZE = 512;

struct sysfs_line {
    char text[SYSFS_LINE_SIZE];
    size_t len = 0;
};

// Reads "<zone>/<leaf>" of the open thermal directory. Returns false, logged, when it cannot.
bool read_zone_file(int thermal_dir, const char* zone, std::string_view leaf, sysfs_line* line) {
    char path[NAME_MAX + 8];
    const size_t zone_len = strnlen(zone, NAME_MAX);
    memcpy(path, zone, zone_len);
    path[zone_len] = '/';
    memcpy(path + zone_len + 1, leaf.data(), leaf.size());
    path[zone_len + 1 + leaf.size()] = '\0';
    const ssize_t len = vexastats_read_line_at(thermal_dir, path, line->text, sizeof line->text);
    if (len >= 0) {
        line->len = static_cast<size_t>(len);
        return true;
    }
    char full_path[sizeof THERMAL_DIR + sizeof path];
    (void)path_join(full_path, THERMAL_DIR, path);
    vexastats_log_sysfs_failure(full_path, len);
    ALOGE("%s: failed to read %s\n", "get_thermal_stats", full_path);
    return false;
}

int add_zone(int thermal_dir, const char* zone, thermal_list* list) {
    sysfs_line line;
    if (!read_zone_file(thermal_dir, zone, "temp", &line)) return 0;
    int32_t temperature = TEMPERATURE_INVALID;
    text_cursor text(std::string_view(line.text, line.len));
    (void)scan_int(&text, &temperature);
    if (!read_zone_file(thermal_dir, zone, "type", &line)) return 0;
    return thermal_list_add(list, line.text, strnlen(line.text, line.len), temperature);
}

void clear(thermal_list* list) {
    list->zones.clear();
    list->names.clear();
}

}  // namespace

int thermal_list_add(thermal_list* list, const char* type, size_t type_len, int32_t temperature) {
    const thermal_zone zone{
        .name_at = list->names.size(), .name_len = type_len, .temperature = temperature};
    if (!list->zones.push_back(zone)) {
        ALOGE(list->zones.size() == 0 ? "%s: failed to alloc head\n"
                                      : "%s: failed to alloc new node\n",
              "get_thermal_stats");
        return -ENOMEM;
    }
    if (!list->names.append(type, type_len) || !list->names.push_back('\0')) {
        ALOGE("%s: failed to alloc name\n", "get_thermal_stats");
        return -ENOMEM;
    }
    return 0;
}

int get_thermal_stats(thermal_list* list) {
    clear(list);
    const unique_dir dir(opendir(THERMAL_DIR));
    if (!dir) {
        ALOGE("%s: failed to open thermal zone. err:%d\n", __func__, errno);
        return -EINVAL;
    }
    while (const dirent* entry = readdir(dir.get())) {
        if (strncmp(entry->d_name, ZONE_PREFIX.data(), ZONE_PREFIX.size()) != 0) continue;
        if (list->zones.size() == MAX_ZONES) break;
        const int result = add_zone(dirfd(dir.get()), entry->d_name, list);
        if (result != 0) {
            clear(list);
            return result;
        }
    }
    return 0;
}
