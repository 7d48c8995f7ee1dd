#include "collectors/gpu/gpu_sample.h"

#include <stdlib.h>

#include "base/little_endian.h"
#include "base/text_cursor.h"

namespace {

constexpr uint32_t HAS_TIMEZONE_BIT = 1u << 31;

// Time stamp, busy percentage, clock, number of levels, charge counter.
constexpr size_t FIXED_LEN = 4 + 4 + 4 + 4 + 4;
constexpr size_t TIMEZONE_LEN = 2;
constexpr size_t LEVEL_LEN = 4 + 8;

const char* skip_blanks(const char* at) {
    while (is_blank_char(*at)) ++at;
    return at;
}

const char* skip_word(const char* at) {
    while (*at && !is_blank_char(*at)) ++at;
    return at;
}

}  // namespace

bool parse_gpu_list(const char* line, uint64_t gpu_level::*field, gpu_level* levels, size_t count) {
    const char* at = line;
    for (size_t i = 0; i < count; ++i) {
        at = skip_blanks(at);
        if (!*at) return false;
        levels[i].*field = strtoull(at, nullptr, 0);
        at = skip_word(at);
    }
    return true;
}

size_t gpu_sample_len(bool has_timezone, uint32_t level_count) {
    return FIXED_LEN + (has_timezone ? TIMEZONE_LEN : 0) + size_t{level_count} * LEVEL_LEN;
}

void gpu_sample_put(uint8_t* out, const gpu_sample& sample) {
    out = put_le(out, sample.time_stamp);
    if (sample.time_stamp & HAS_TIMEZONE_BIT) out = put_le(out, sample.timezone_min);
    out = put_le(out, sample.busy_percent);
    out = put_le(out, sample.clock_Hz);
    out = put_le(out, sample.level_count);
    for (uint32_t i = 0; i < sample.level_count; ++i) {
        out = put_le(out, static_cast<uint32_t>(sample.levels[i].frequency_Hz));
        out = put_le(out, sample.levels[i].time);
    }
    put_le(out, sample.charge_counter_uAh);
}
