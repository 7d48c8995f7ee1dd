// One modem crash in the record: a separator line, the local time of the crash, and the text that
// the modem's crash-dump device delivered.
#pragma once

#include <cstddef>

// Bytes that one crash takes in the record at most; a longer dump is cut there.
inline constexpr size_t CRASH_RECORD_SIZE = 4410;

struct crash_record {
    char text[CRASH_RECORD_SIZE];
    size_t len = 0;

    // The text stays as it comes: only what was put into it is ever looked at.
    crash_record() {}  // NOLINT

    char* room() { return text + len; }
    size_t room_len() const { return CRASH_RECORD_SIZE - len; }
};

// Size of a buffer that a crash time fits.
inline constexpr size_t CRASH_TIME_SIZE = 28;

// Writes the local time as "2023-11-14 23:13:20 +0100", or "Error in getting crashtime", with the
// failure logged. Any thread.
void get_crashtime(char (&out)[CRASH_TIME_SIZE]);

// Starts the record of a crash at `crash_time`.
void crash_record_begin(crash_record* record, const char* crash_time);

// Takes the `len` (at most room_len()) bytes that were read into room(), one chunk of the dump, as
// text: up to its first zero byte, for which its last byte always stands, and a newline instead of
// that. The last character of a chunk is lost unless it is a newline or a zero byte: deliberate,
// the readers of the uploads know dumps so.
void crash_record_add_chunk(crash_record* record, size_t len);
