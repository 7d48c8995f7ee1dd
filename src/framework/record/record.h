// Record files: what a collector appends to until the record is full or asked for.
//
// States of a record, and where each is found:
//   open      "<dir>/<prefix>", its path in the row's rec_fname: one text line with the times at
//   which
//             it was begun, then the collector's bytes
//   finished  "<dir>/<stem>.<realtime_ms>": header and compressed payload, on its way out
//             (framework/record/hand_over.h); one that is found at the next begin is delivered or
//             removed
//   dropped   "<up_dir>/<stem>.<realtime_ms>": in the dropbox, the upload agent's from here on
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/unique_handle.h"
#include "framework/record/full_measure.h"
#include "framework/row/collector_info.h"

struct record_init_req {
    collector_info* row = nullptr;
    const char* dir = nullptr;     // the collector's statistics directory
    const char* prefix = nullptr;  // name of the record file, for example "cpustats.tmp"
    uint8_t resume = 0;            // go on with an existing valid record
    uint8_t discard = 0;           // delete an existing record
};

// Owns the record's stream: closes it at its end, and the file stays for the next run.
struct record_handle {
    unique_file file;             // the open record; null when there is none
    unique_full_measure measure;  // its compressed size, once it is nearly full
    bool undelivered = false;     // a hand-over failed and the record was not opened again yet
};

enum write_flags : uint32_t {
    WRITE_DROP = 1u << 0,       // hand the record to the dropbox after this write
    WRITE_BEGIN_NEW = 1u << 1,  // and begin a new record after that
};

struct write_req {
    collector_info* row = nullptr;
    record_handle* handle = nullptr;
    const void* data = nullptr;
    size_t len = 0;
    uint32_t flags = 0;       // write_flags
    uint8_t rolled_over = 0;  // set to 1 when the record was full and handed over first
    // Bytes that go before `data`, as one with them; only with `data`.
    const void* head = nullptr;
    size_t head_len = 0;
};

// Opens or creates the record and leaves the stream at its end. With neither resume nor discard,
// what an earlier run left is handed over and a new record begun; what cannot be handed over is
// resumed. A finished file that an interrupted hand-over left is delivered when it is whole and
// removed when it is not. Returns the stream, for the caller's record_handle, or null; failures are
// logged. Nothing that holds data is overwritten unless its first line is not
// one of this record version. For the start of a collector. Thread: the row's own, while no write
// is under way; does not take the record-file lock.
unique_file vexastats_record_init(record_init_req* req);

// Opens the record again after a failure: closes the handle's stream, if there is one, and goes on
// with what could not be handed over, whatever req says of resume and discard. A new record is
// begun when there is none. Returns whether the handle has a stream; failures are logged. Thread:
// as vexastats_record_init.
bool vexastats_record_reopen(record_init_req req, record_handle* handle);

// Appends head and data, whose lengths together are "the bytes", to the record. A record that they
// would make larger than the row's `size` (as estimated, then as measured) is handed over first.
// After a failed hand-over the handle's stream is null and the collector goes on with
// vexastats_record_reopen. After a short write or a failed flush the record is cut back to where it
// was. Returns the bytes appended, 0 on failure, or the short count of a short write; failures are
// logged. Thread: any; serialised over all collectors by the record-file lock.
size_t vexastats_write_file(write_req* req);

// Closes the record's stream before its handle does; the file stays for the next run. Thread: the
// row's own.
void vexastats_record_close(record_handle* handle);

// Bytes in the record after its first line (of which 256 are counted at most), 0 on any failure.
// Failures are logged. Thread: the row's own.
size_t vexastats_record_size(collector_info* row);
