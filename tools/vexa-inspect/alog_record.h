// The Android log collector's record (client 501, record version 1): a title line where a campaign
// begins, then log entries one behind the other. docs/formats.md describes the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "record_formats.h"

struct alog_entry {
    int32_t pid = 0;
    uint32_t tid = 0;
    uint32_t sec = 0;  // wall clock
    uint32_t nsec = 0;
    uint32_t log_id = 0;
    uint32_t uid = 0;
    uint8_t priority = 0;  // 2 verbose to 7 fatal
    std::string tag;
    std::string message;
    bool cut = false;  // the log held more of it
};

struct alog_record {
    // Bytes in front of the first whole entry. There are some only in a record that was begun
    // before the wall clock was set.
    size_t skipped_bytes = 0;
    bool begins_campaign = false;
    std::vector<alog_entry> entries;
};

// Decodes a whole payload. Throws upload_error with the offset of what does not fit.
alog_record alog_record_decode(std::span<const uint8_t> payload);

// The entry in the form that log viewers call threadtime, one line for each line of the message:
// "11-14 23:13:20.005  4711  4712 I tag     : text". The tag stands in every line. So that many
// lines behind a long tag do not become many times the entry, lines are left out, and said to be,
// once the text is ALOG_TEXT_MAX_GROWTH times as long as the entry.
inline constexpr size_t ALOG_TEXT_MAX_GROWTH = 16;
std::string alog_entry_text(const alog_entry& entry, int timezone_min);

void alog_record_add_json(const upload_file& file, json_stream* out);
void alog_record_put_report(const upload_file& file, const report_options& options,
                            const text_sink& out);
