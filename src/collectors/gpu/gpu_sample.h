// One GPU sample: the lists it is read from, and the bytes of the record (docs/formats.md).
#pragma once

#include <cstddef>
#include <cstdint>

struct gpu_level {
    uint64_t frequency_Hz = 0;  // the record keeps the lower 32 bits
    uint64_t time = 0;          // spent at it, in the driver's unit
};

struct gpu_sample {
    uint32_t time_stamp = 0;  // bit 31: timezone_min follows
    int16_t timezone_min = 0;
    int32_t busy_percent = 0;
    int32_t clock_Hz = 0;
    const gpu_level* levels = nullptr;
    uint32_t level_count = 0;
    int32_t charge_counter_uAh = 0;
};

// Reads the first `count` words of a list into a field of `levels`, one each: numbers in decimal,
// in hexadecimal behind "0x" or in octal behind "0". Returns false when there are too few, or one
// that does not begin with a number.
bool parse_gpu_list(const char* line, uint64_t gpu_level::*field, gpu_level* levels, size_t count);

size_t gpu_sample_len(bool has_timezone, uint32_t level_count);

// Writes the sample.
void gpu_sample_put(uint8_t* out, const gpu_sample& sample);
