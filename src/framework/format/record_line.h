// The first line of a record: "Version=%d Realtime=%lu Uptime=%lu Timezone=%d\n".
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/format/upload_header.h"

struct record_times {
    int32_t version = 0;
    uint64_t realtime_ms = 0;
    uint64_t uptime_ms = 0;
    int16_t timezone_min = 0;
};

// Size of a buffer that a first line is put into: what is longer than 256 characters, which no
// valid line is, counts as data.
inline constexpr size_t RECORD_LINE_SIZE = 257;

// Reads a first line. Returns false when it does not hold all four values.
bool record_line_parse(const char* line, record_times* times);

// Writes the header's version and times as a first line. Returns its length.
size_t record_line_format(const record_header& header, char (&line)[RECORD_LINE_SIZE]);
