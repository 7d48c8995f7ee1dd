// The first line of a record: "Version=%d Realtime=%lu Uptime=%lu Timezone=%d\n".
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "framework/collector_info.h"
#include "framework/unique_handle.h"

struct record_times {
    int32_t version = 0;
    uint64_t realtime_ms = 0;
    uint64_t uptime_ms = 0;
    int16_t timezone_min = 0;
};

// Size of a buffer that a first line is read into.
inline constexpr int RECORD_LINE_SIZE = 512;

// Reads a first line. Returns false when it does not hold all four values.
bool record_line_parse(const char* line, record_times* times);

// Opens a record as fopen does, unbuffered. Returns null with errno set on failure.
unique_file record_open(const char* path, const char* mode);

// Copies the record's first line, its newline included, without moving the stream.
// Returns false when the record is empty or cannot be read.
bool record_read_line(FILE* stream, char (&line)[RECORD_LINE_SIZE]);

// Sets the times of the row's header to now.
void record_set_times_now(collector_info* row);

// Writes the row's version and times as a first line at the stream's position.
// Returns false on a short write. Not flushed, not logged.
bool record_line_write(FILE* stream, const collector_info* row);
