// The file of an open record, and the first line in it (framework/format/record_line.h).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

#include "base/unique_handle.h"
#include "framework/format/record_line.h"
#include "framework/row/collector_info.h"

// Longest record, and finished file, that is looked at, bytes: as far as the test whether a record
// is full can count.
inline constexpr off_t RECORD_FILE_MAX = INT32_MAX;

// Opens an existing record for update, unbuffered, at its start. Returns null with errno set on
// failure.
unique_file record_open(const char* path);

// Begins a record under row->rec_fname: sets the header's times to now and writes the first line.
// What is there is emptied when `over_old` says so, and otherwise in the way (EEXIST). `caller`
// names the function in a flush failure's message. Returns the stream or null; failures are logged.
unique_file record_begin(collector_info* row, const char* caller, bool over_old);

// Copies the record's first line, its newline included, without moving the stream. The one way in
// which it is read. Returns its length, 0 when the record is empty or cannot be read.
size_t record_read_line(FILE* stream, char (&line)[RECORD_LINE_SIZE]);

// The record's end position, with the stream moved there; -1, logged with `caller`, on failure.
off_t record_seek_to_end(FILE* stream, const char* caller);

// Sets the times of the row's header to now.
void record_set_times_now(collector_info* row);

// Writes the row's version and times as a first line at the stream's position.
// Returns false on a short write. Not flushed, not logged.
bool record_line_write(FILE* stream, const collector_info* row);
