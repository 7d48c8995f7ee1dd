// The microdump collector's record (client 5, record version 2): the texts of modem crashes.
// docs/formats.md describes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "record_formats.h"

struct microdump {
    std::string crash_time;  // as the phone wrote it
    std::string text;
};

struct microdump_record {
    size_t skipped_bytes = 0;  // of a first line that was rewritten, see the CPU record
    std::vector<microdump> dumps;
};

// Decodes a whole payload. Throws upload_error with the offset of what does not fit.
microdump_record microdump_record_decode(std::span<const uint8_t> payload);

void microdump_record_add_json(const upload_file& file, json_stream* out);
std::string microdump_record_report(const upload_file& file, const report_options& options);
