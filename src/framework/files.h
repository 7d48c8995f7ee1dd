// Small file and directory helpers that the whole daemon shares.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "framework/owned_bytes.h"
#include "framework/stop.h"

// Largest configuration, status or override file that is looked at, bytes.
inline constexpr off_t SMALL_FILE_MAX = off_t{1} << 20;

// Reads one line of the test override file into `buf` (size bytes). Returns false when there is no
// such file (silently) or it cannot be read (logged). Any thread.
bool vexastats_get_test_config_file(char* buf, size_t size);

// Reads at most `len` bytes of "<dir>/<name>" into `buf`, which holds len + 1, and terminates it.
// Returns the count; any failure gives "" and 0. Any thread.
int read_max_n_chars_from_file(const char* dir, const char* name, char* buf, int len);

// Whether `path` can be opened as a directory; null: false. Any thread.
bool is_dir_exist(const char* path);

// Blocks until directory `path` exists or `stop` is raised. The wait, its end and failures are
// logged; after a failure it returns early. Any thread.
void vexastats_wait_dir_ready(const char* path, const stop_flag* stop);

// Reads the first line of `path` (at most size - 1 characters) into `buf` and removes one trailing
// newline. Returns 0, or -EINVAL, logged. Any thread.
int vexastats_read_sysfs(const char* path, char* buf, size_t size);

// Logs what vexastats_read_sysfs does after a failure that vexastats_read_line_at returned.
void vexastats_log_sysfs_failure(const char* path, ssize_t result);

// Reads the number ("%d") at the beginning of such a file. Returns 0; -EINVAL, logged, when it
// cannot be read; or -ENODATA, not logged, when there is no number. *value is left alone on
// failure.
int vexastats_read_sysfs_number(const char* path, int32_t* value);

// As vexastats_read_sysfs, without a word in the log and relative to an open directory (or
// AT_FDCWD). Returns the length of the line, -ENOENT and the like when the file cannot be opened,
// or -ENODATA when it holds no line.
ssize_t vexastats_read_line_at(int dir_fd, const char* path, char* buf, size_t size);

// Number of a battery's charge status text: "Unknown" 0, "Charging" 1, "Discharging" 2,
// "Not charging" 3, "Full" 4, any other 0. Returns 0, or -EINVAL for a null text.
int chg_stat_txt_to_enum(const char* text, uint32_t* out);

// Whether the display is off: its backlight reads exactly "0". A failed read is logged: false.
bool vexastats_lcd_off_status();

// Replaces file `path` by one with `len` bytes of `data` (mode 0600): written beside it under the
// name path + ".new", synced, and renamed, so that a reader or a kill never meets half of it.
// Returns 0 or a negative errno, with *opened (may be null) telling whether it was got as far as
// writing; not logged. Any thread.
int vexastats_replace_file(const char* path, const void* data, size_t len, bool* opened = nullptr);

// The same with a name of the caller's for the file beside it, in the same directory.
int vexastats_replace_file_by(const char* path, const char* beside, const void* data, size_t len,
                              bool* opened = nullptr);

// Reads regular file `path`, which `fd` has open at its start, into one block with a zero byte
// behind it. Returns false when it is empty, longer than max_len bytes or cannot be read; logged,
// with `caller` as the function's name where there is no memory. Any thread.
bool vexastats_read_whole(int fd, const char* path, const char* caller, size_t max_len,
                          owned_bytes* out);

// The same with a file of any length that it opens itself. Returns 0, -EINVAL, or -ENOENT when it
// cannot be opened, which is logged too. Any thread.
int vexastats_read_file(const char* path, const char* caller, owned_bytes* out);
