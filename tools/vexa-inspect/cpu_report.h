// The CPU record for readers: as JSON with the raw values, and as tables.
#pragma once

#include <string>

#include "record_formats.h"

void cpu_record_add_json(const upload_file& file, json_stream* out);
std::string cpu_record_report(const upload_file& file, const report_options& options);
