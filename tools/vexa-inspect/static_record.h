// The two records of the static information collector (client 3, record version 1): text in
// sections. docs/formats.md describes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "record_formats.h"

struct static_section {
    std::string title;  // empty: text in front of the first title
    std::string text;   // its lines as they are, without the empty line in front of the next title
};

// Splits a payload at the titles that are known; any text is such a record.
std::vector<static_section> static_record_decode(std::span<const uint8_t> payload);

void static_record_add_json(const upload_file& file, json_stream* out);
std::string static_record_report(const upload_file& file, const report_options& options);
