// The record formats that vexa-inspect can decode. A new one is one file that implements its
// record_format and one row in record_formats.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "json_stream.h"
#include "upload_reader.h"

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
    // Puts "records" into the file's object, which is open. Throws upload_error when the payload
    // does not fit the format, and has put out nothing then.
    void (*add_json)(const upload_file& file, json_stream* out) = nullptr;
    // The payload as tables for a reader at a terminal. Throws as add_json.
    void (*report)(const upload_file& file, const report_options& options,
                   const text_sink& out) = nullptr;
};

// All of them.
std::span<const record_format> record_format_list();

// The format of the header's client and record version, or null when it is not known. Throws
// upload_error when the header's data type contradicts it.
const record_format* record_format_find(const upload_header& header);

// One file as a JSON object on one line without its newline, or as text, put out piece by piece
// (nothing of it when it throws) or as a whole. `path` only names the file. All throw upload_error.
// Any thread.
void upload_put_json(const std::string& path, const upload_file& file, const text_sink& out);
std::string upload_json(const std::string& path, const upload_file& file);
void upload_put_report(const std::string& path, const upload_file& file,
                       const report_options& options, const text_sink& out);
std::string upload_report(const std::string& path, const upload_file& file,
                          const report_options& options);
