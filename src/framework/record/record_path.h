// The three names of a record: while it is open, finished, and in the dropbox.
#pragma once

#include <limits.h>

#include <cstdint>

#include "framework/row/collector_info.h"

using record_path = char[sizeof(collector_info::rec_fname)];

struct record_names {
    record_path record = "";      // the open record; empty: none
    record_path finished = "";    // "<dir>/<stem>.<realtime_ms>"
    char dropped[PATH_MAX] = "";  // the same base name in the row's dropbox
};

// Replaces everything from the last "." of `path`; false when there is none or it does not fit.
bool record_path_end_in(record_path& path, const char* suffix);

// Fills names->finished and names->dropped for a record that is called like `path` but for what
// follows the last ".". The number in the name is *ms, or the next one that is free both in the
// dropbox and beside the record, so that nothing is ever overwritten; *ms is set to it. `path`
// itself counts as free. Returns false when `path` has no "." or no "/", or is too long.
bool record_names_find(const collector_info& row, const char* path, uint64_t* ms,
                       record_names* names);
