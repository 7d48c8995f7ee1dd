// The test whether a record is full.
#pragma once

#include <sys/types.h>

#include "framework/record/record.h"

enum class full_test { FITS, FULL, FAILED };

// Whether the request's bytes would push the upload of its record, which is `pos` bytes long, past
// the row's size: as estimated, then as measured. The stream stays at the record's end. A failure
// is logged. Thread: the holder of the record-file lock.
full_test test_full(const write_req& req, off_t pos);
