// The hand-over of a finished record: 53-byte big-endian header, gzip payload, rename into the
// dropbox. docs/formats.md describes the file for readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "framework/record/record.h"
#include "framework/record/record_path.h"
#include "framework/row/collector_info.h"

// Turns the row's record into an upload file in row->up_dir. On return the old stream is closed;
// with begin_new and success handle->file is a fresh record, otherwise it is null. Returns 0, or
// -EINVAL on any failure, each of which is logged. What was collected is then still on the disk: in
// the record, which stands as it was, or, when only the last rename failed, in the finished file
// beside it, which the next begin delivers. Thread: the holder of the record-file lock, or the
// row's own from vexastats_record_init.
int move_to_dropbox(collector_info* row, record_handle* handle, bool begin_new);

// Writes the row's header at offset 0 of `stream` and counts the row's sequence file on by one.
// Returns 0 or -EINVAL; failures are logged. Thread: as move_to_dropbox.
int prepend_header(FILE* stream, collector_info* row);

// Writes `header` at offset 0 of `stream`. Returns 0 or -EINVAL, logged, with the row's name. The
// one way in which a header gets into a file.
int write_header(FILE* stream, const record_header& header, const char* row_name);

enum class delivery {
    DROPPED,      // in the dropbox; the record is gone
    RECORD_GONE,  // the finished file is where it was and all there is
    FAILED,       // both are where they were
};

// Brings a whole finished file, open at `fd`, into the dropbox: syncs it, deletes the record, if it
// has one, and renames it. So the data is on the disk at every moment, and never to be sent twice.
// Logged. Thread: as move_to_dropbox.
delivery deliver(int fd, const record_names& names);
