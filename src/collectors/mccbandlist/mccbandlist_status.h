// The updater's status file, by which the rhythm of its attempts survives restarts.
#pragma once

#include <cstdint>
#include <string_view>

struct mccbandlist_status {
    uint64_t last_dl_done_ts = 0;  // wall clock of the last completed attempt, ms; 0: none
    uint64_t last_key_ts = 0;      // key time stamp of the last list loaded; 0: none
    bool unsaved = false;          // the file could not be written
};

// Reads "last_dl_done_ts=%lu;last_key_ts=%lu;". Returns whether the line has that form.
bool mccbandlist_parse_status(std::string_view line, mccbandlist_status* status);

// Reads the status file; a status that could not be saved is newer and stays. Returns 0, or
// -EINVAL, logged, with a status of zeros. Thread: the updater's.
int mccbandlist_get_status(mccbandlist_status* status);

// Replaces the status file. Returns 0, or -EINVAL, logged. Thread: the updater's.
int mccbandlist_set_status(mccbandlist_status* status);
