// The value line of a collector's configuration file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Size of a buffer that a line of a configuration file is read into; a longer one counts as
// several.
inline constexpr int CONFIG_LINE_SIZE = 512;

// Reads the first line that is neither empty nor a comment into `line`, as much of it as fits.
// Returns false at the end of the file, and after SMALL_FILE_MAX bytes (base/text_file.h)
// without such a line: a file can grow as fast as it is read.
bool config_read_value_line(FILE* stream, char* line, size_t size);

template <size_t SIZE>
bool config_read_value_line(FILE* stream, char (&line)[SIZE]) {
    return config_read_value_line(stream, line, SIZE);
}

struct config_values {
    int64_t client_id = 0;
    int32_t size = 0;  // bytes
    int32_t interval = 0;
    int32_t threshold = 0;
    int32_t notify = 0;
    int32_t no_supported_kernel = 0;
};

// How many values a whole line has: a downloaded one lacks the last.
inline constexpr int CONFIG_DOWNLOADED_VALUES = 5;
inline constexpr int CONFIG_LOCAL_VALUES = 6;

// Reads "clientid=%d;size=%d;interval=%d;threshold=%d;notify=%d;no_supported_kernel=%d", stopping
// at the first part that does not match. A number out of range takes the nearest one that is in it.
// Returns how many values were read; the others are 0. Any thread.
int config_parse_line(const char* line, config_values* values);
