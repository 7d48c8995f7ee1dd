// The diagnostic collector's record (client 4, record version 1): log packets of the modem, back to
// back. docs/formats.md describes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "record_formats.h"

// A packet whose header says where the next one begins, as those of the modem's stand-in do.
struct diag_packet {
    size_t offset = 0;  // in the payload
    uint16_t length = 0;
    uint16_t log_code = 0;
    uint64_t time_stamp = 0;
    uint32_t sequence = 0;
    std::span<const uint8_t> data;  // behind the header
};

// The packets of a whole payload; none when a header does not lead to the next one, up to the
// payload's end: then it is not known where packets begin.
std::vector<diag_packet> diag_record_packets(std::span<const uint8_t> payload);

void diag_record_add_json(const upload_file& file, json_stream* out);
std::string diag_record_report(const upload_file& file, const report_options& options);
