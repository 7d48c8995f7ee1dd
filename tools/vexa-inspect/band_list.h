// The header of a band list, as the download agent delivers it (docs/formats.md). It is no upload
// file, and its reader shares nothing with the daemon.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "record_formats.h"

struct band_list_header {
    bool is_little = false;
    uint8_t structure_version = 0;
    std::string owner;  // up to its zero byte, or all 30 bytes
    uint32_t db_id = 0;
    uint32_t contents_version = 0;
    size_t file_bytes = 0;
};

// Throws upload_error for fewer than 40 bytes.
band_list_header band_list_parse(std::span<const uint8_t> bytes);

// Of the file at `path`, as text for a terminal or as one JSON object. Throws when it cannot be
// read or is larger than 16 MiB.
std::string band_list_show(const std::string& path, bool json);
