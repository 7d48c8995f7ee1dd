// The microdump collector's own configuration format.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "framework/row/collector_info.h"

struct microdump_config {
    int64_t client_id = 0;
    int64_t size = 0;                   // bytes
    uint64_t max_upload_wait_time = 0;  // ms
};

// Reads "clientid=%d;size=%d;maxuploadwaittime=%lu". Returns whether all three values are there.
bool microdump_config_parse(std::string_view line, microdump_config* config);

// The row's cfg_read_handler: takes the values over, within their bounds. A stream without a valid
// value line for this row, or no stream, is logged and changes nothing. Thread: the row's own.
void microdump_cfg_read_handler(FILE* stream, collector_info* row);

// The row's cfg_update_handler: replaces the local file by one with the row's values. Returns 0, or
// -EINVAL, logged. Thread: the row's own.
int microdump_cfg_update_handler(collector_info* row);
