// One CPU sample, from plain values to the bytes of the record (docs/formats.md).
#pragma once

#include <cstddef>
#include <cstdint>

#include "collectors/cpu/cpu_times.h"
#include "collectors/cpu/network_stats.h"
#include "collectors/cpu/thermal_stats.h"

struct cpu_sample {
    uint32_t time_stamp = 0;  // bit 31: timezone_min follows
    int16_t timezone_min = 0;
    int32_t cpu_count = 0;
    const cpu_times* times = nullptr;          // cpu_count of them
    const int32_t* frequencies_kHz = nullptr;  // likewise
    int32_t charge_counter_uAh = 0;
    uint16_t power_word = 0;
    const thermal_list* thermal = nullptr;
    const network_node* network = nullptr;
    uint16_t network_count = 0;
    uint16_t process_count = 0;
};

// Bytes of a sample without any network entries and process block.
size_t cpu_sample_base_len(bool has_timezone, int32_t cpu_count, const thermal_list& thermal);

// Writes all of the sample but its process block. Returns the place where that begins.
uint8_t* cpu_sample_put(uint8_t* out, const cpu_sample& sample);
