// The hand-over of a finished record: 53-byte big-endian header, gzip payload, rename into the
// dropbox. docs/formats.md describes the file for readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "framework/collector_info.h"
#include "framework/record.h"

// Turns the row's record into an upload file in row->up_dir. The order is durable: the finished
// file is synced before the record is deleted, and renamed last. On return the old stream is
// closed; with begin_new and success handle->file is a fresh record, otherwise it is null. Returns
// 0, or -EINVAL on any failure, each of which is logged; no half-made file stays. Thread: the
// holder of the record-file lock, or the row's own from vexastats_record_init.
int move_to_dropbox(collector_info* row, record_handle* handle, bool begin_new);

// Writes the row's header at offset 0 of `stream` and counts the row's sequence file on by one.
// Returns 0 or -EINVAL; failures are logged. Thread: as move_to_dropbox.
int prepend_header(FILE* stream, collector_info* row);

// Deflates `in` from its position to its end into `out` (null: only counts) and adds the number of
// compressed bytes to *count. Returns 0, -EINVAL, or the zlib error of the set-up; failures are
// logged. Any thread.
int vexastats_compress(FILE* in, FILE* out, size_t* count);

// Opens row->rec_fname ("w+b"), sets the header's times to now and writes the first line.
// `caller` names the function in a flush failure's message. Returns the stream or null; failures
// are logged. Thread: as move_to_dropbox.
FILE* record_begin(collector_info* row, const char* caller);

// Deals with finished files "<stem>.<digits>" that an interrupted hand-over left in `dir`: a whole
// one is moved to the row's dropbox, and an open record `prefix` with the same start time deleted,
// since its bytes are in it; any other is removed. Logged. Thread: the row's own.
void deliver_finished_files(collector_info* row, const char* dir, const char* prefix);
