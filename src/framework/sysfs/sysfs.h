// The kernel's one-line files about display and battery, read with a word in the log when that
// fails.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Reads the first line of `path` (at most size - 1 characters) into `buf` and removes one trailing
// newline. Returns 0, or -EINVAL, logged. Any thread.
int vexastats_read_sysfs(const char* path, char* buf, size_t size);

// Logs what vexastats_read_sysfs does after a failure that vexastats_read_line_at returned.
void vexastats_log_sysfs_failure(const char* path, ssize_t result);

// Reads the number ("%d") at the beginning of such a file. Returns 0; -EINVAL, logged, when it
// cannot be read; or -ENODATA, not logged, when there is no number. *value is left alone on
// failure.
int vexastats_read_sysfs_number(const char* path, int32_t* value);

// Number of a battery's charge status text: "Unknown" 0, "Charging" 1, "Discharging" 2,
// "Not charging" 3, "Full" 4, any other 0. Returns 0, or -EINVAL for a null text.
int chg_stat_txt_to_enum(const char* text, uint32_t* out);

// Whether the display is off: its backlight reads exactly "0". A failed read is logged: false.
bool vexastats_lcd_off_status();
