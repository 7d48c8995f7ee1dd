#define LOG_TAG "vexastatsd"

#include "framework/sysfs/sysfs.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "base/text_cursor.h"
#include "base/text_file.h"
#include "platform/log.h"

namespace {

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
