// The record that an earlier run left.
#pragma once

#include "base/unique_handle.h"
#include "framework/record/record.h"

// What becomes of it.
enum class old_record {
    RESUMED,  // the request's stream goes on with it
    GONE,     // handed over, deleted, or of no use: a new one takes its place
    STAYS,    // it could not be looked at or handed over
};

// Deals with the old record under req.row->rec_fname as the request wants it. *stream is it, at its
// end, when it is resumed; the row's header then has its times. Failures are logged. Thread: the
// row's own, from vexastats_record_init.
old_record deal_with_old_record(const record_init_req& req, unique_file* stream);
