// The record formats that vexa-inspect can decode. A new one is one file that implements its
// record_format and one row in record_formats.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "upload_reader.h"

using json_object = nlohmann::ordered_json;

struct report_options {
    size_t max_rows =
        SIZE_MAX;  // most rows of a table over time; more samples are thinned out evenly
    size_t max_processes = 10;    // most processes shown
    size_t max_hex_bytes = 4096;  // most bytes of an unknown payload shown
};

struct record_format {
    uint32_t client_id = 0;
    uint32_t rec_version = 0;
    uint8_t data_type = 0;
    const char* name = nullptr;
    // Adds "records" to the file's object. Throws upload_error when the payload does not fit the
    // format.
    void (*add_json)(const upload_file& file, json_object* object) = nullptr;
    // The payload as tables for a reader at a terminal. Throws as add_json.
    std::string (*report)(const upload_file& file, const report_options& options) = nullptr;
};

// All of them.
std::span<const record_format> record_format_list();

// The format of the header's client and record version, or null when it is not known. Throws
// upload_error when the header's data type contradicts it.
const record_format* record_format_find(const upload_header& header);

// One file as a JSON object on one line without its newline, or as text. `path` only names the
// file. Both throw upload_error. Any thread.
std::string upload_json(const std::string& path, const upload_file& file);
std::string upload_report(const std::string& path, const upload_file& file,
                          const report_options& options);
