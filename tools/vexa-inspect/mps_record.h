// The modem statistics collector's record (client 6, record version 1): a protocol-buffer message
// with data files of the modem. docs/formats.md describes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "record_formats.h"

struct mps_moment {
    uint32_t collection_state = 0;  // 2: collecting; 0: there was no collection
    int64_t timezone_min = 0;
    uint64_t realtime_ms = 0;
};

struct mps_metric {
    mps_moment start;  // of the collection
    mps_moment end;    // when the daemon took the file
    uint32_t data_kind = 0;
    std::string data;
};

// Most raw data fields, and most metrics, of a record that are kept. The daemon's have one to a
// few, each a data file of the modem; a field of two bytes without any would be many times itself.
inline constexpr size_t MPS_DATA_MAX = 4096;

struct mps_record {
    size_t skipped_bytes = 0;  // of a first line that was rewritten, see the CPU record
    uint64_t campaign_id = 0;
    uint32_t client_id = 0;
    uint32_t major_version = 0;  // of the modem's service
    uint32_t minor_version = 0;
    std::vector<std::string> raw_data;
    std::vector<mps_metric> metrics;
    size_t left_out = 0;  // raw data fields and metrics above those
};

// Decodes a whole payload. Throws upload_error with the offset of the field that does not fit.
mps_record mps_record_decode(std::span<const uint8_t> payload);

void mps_record_add_json(const upload_file& file, json_stream* out);
void mps_record_put_report(const upload_file& file, const report_options& options,
                           const text_sink& out);
