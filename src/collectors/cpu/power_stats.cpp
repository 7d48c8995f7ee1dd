#define LOG_TAG "vexastatsd"

#include "collectors/cpu/power_stats.h"

#include <unistd.h>

#include "framework/sysfs/sysfs.h"
#include "framework/time/clock.h"
#include "platform/log.h"
#include "sampling/sampling.h"

namespace {

constexpr char CAPACITY_FILE[] = "/sys/class/power_supply/battery/capacity";
constexpr char STATUS_FILE[] = "/sys/class/power_supply/battery/status";
constexpr char LCD_BRIGHTNESS_FILE[] = "/sys/class/leds/lcd-backlight/brightness";
constexpr char PANEL_BRIGHTNESS_FILE[] = "/sys/class/backlight/panel0-backlight/brightness";
constexpr size_t SYSFS_LINE_SIZE = 512;

constexpr uint64_t SNAPSHOT_PERIOD_MS = minutes_ms(3);
constexpr int64_t CHARGING_CURRENT_MA = 301;
constexpr int64_t MA_OF_ONE_UAH_PER_MS = 3600;

bool read_number(const char* path, int32_t* value) {
    return vexastats_read_sysfs_number(path, value) == 0;
}

bool read_charge_status(uint32_t* status) {
    char line[SYSFS_LINE_SIZE];
    return vexastats_read_sysfs(STATUS_FILE, line, sizeof line) == 0 &&
           chg_stat_txt_to_enum(line, status) == 0;
}

const char* brightness_file() {
    return access(LCD_BRIGHTNESS_FILE, F_OK) == 0 ? LCD_BRIGHTNESS_FILE : PANEL_BRIGHTNESS_FILE;
}

}  // namespace

power_values read_power_values(const char* caller) {
    power_values values;
    if (!sampling_read_charge_counter(&values.charge_counter_uAh)) {
        ALOGE("%s: failed to read bms cc\n", caller);
    }
    if (!read_number(CAPACITY_FILE, &values.capacity_percent)) {
        ALOGE("%s: failed to read battery level\n", caller);
    }
    if (!read_charge_status(&values.charge_status)) {
        ALOGE("%s: failed to read chg status\n", caller);
    }
    if (!read_number(brightness_file(), &values.brightness)) {
        ALOGE("%s: failed to read backlight level\n", caller);
    }
    return values;
}

uint16_t pack_power_word(const power_values& values) {
    const auto brightness = static_cast<uint32_t>(values.brightness);
    const auto capacity = static_cast<uint32_t>(values.capacity_percent);
    return static_cast<uint16_t>(((brightness << 8) & 0xFC00) | ((capacity & 0x7F) << 3) |
                                 (values.charge_status & 7));
}

void power_trigger_update(power_trigger* trigger, uint64_t now_ms, int32_t charge_counter_uAh) {
    const bool first = trigger->counter_time_ms == 0;
    const auto elapsed_ms = static_cast<int64_t>(now_ms - trigger->counter_time_ms);
    const int64_t gained_uAh = charge_counter_uAh - trigger->counter_uAh;
    trigger->counter_time_ms = now_ms;
    trigger->counter_uAh = charge_counter_uAh;
    trigger->snapshot = false;
    if (first) return;

    bool due = now_ms - trigger->snapshot_time_ms > SNAPSHOT_PERIOD_MS;
    // Two samples in one millisecond say nothing of the current.
    if (elapsed_ms != 0 && gained_uAh * MA_OF_ONE_UAH_PER_MS / elapsed_ms >= CHARGING_CURRENT_MA) {
        due = true;
    }
    if (due) trigger->snapshot_time_ms = now_ms;
    trigger->snapshot = due;
}
