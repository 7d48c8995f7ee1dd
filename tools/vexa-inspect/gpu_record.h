// The GPU collector's record (client 1, record version 4): samples one behind the other.
// docs/formats.md describes the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "record_formats.h"

struct gpu_record_level {
    uint32_t freq_hz = 0;
    uint64_t time = 0;  // spent at it so far, in the unit of the kernel's driver
};

struct gpu_record_sample {
    uint32_t uptime_100ms = 0;
    std::optional<int16_t> timezone_min;  // there when it changed since the sample before
    uint32_t busy_percent = 0;
    uint32_t clock_hz = 0;
    std::vector<gpu_record_level> levels;
    int32_t charge_counter_uah = 0;
};

struct gpu_record {
    size_t skipped_bytes = 0;  // in front of the first whole sample, see the CPU record
    std::vector<gpu_record_sample> samples;
};

// Decodes a whole payload. Throws upload_error with the offset of the field that does not fit.
gpu_record gpu_record_decode(std::span<const uint8_t> payload);

void gpu_record_add_json(const upload_file& file, json_stream* out);
std::string gpu_record_report(const upload_file& file, const report_options& options);
