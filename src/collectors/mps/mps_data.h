// The modem's data files on their way into records: read, encoded, handed over, deleted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "framework/config/config_update.h"
#include "framework/record/record.h"
#include "framework/row/collector_info.h"

// A moment of a collection. All zero: there was none yet.
struct mps_time_info {
    uint32_t collection_state = 0;  // 2: collecting
    uint32_t is_behind_utc = 0;
    uint32_t offset_min = 0;  // of local time from UTC, without its sign
    uint64_t real_time_ms = 0;
};

// The present moment of a collection under way. Any thread.
mps_time_info mps_time_now();

// Kinds of data, by the files' names.
enum mps_data_kind : uint32_t {
    MPS_DATA_METRIC = 0,
    MPS_DATA_STATIC = 1,
    MPS_DATA_LLL = 2,
};

// Files that stay where they are, each as it was. With more than there is room the oldest is
// forgotten.
struct mps_file_marks {
    std::array<file_mark, 32> files{};
    size_t next = 0;
};

// The collection whose data are uploaded; its campaign is row->hdr.campaign_id.
struct mps_collection {
    collector_info* row = nullptr;
    record_handle record{};
    mps_time_info start{};
    mps_file_marks undeleted{};  // were taken, and are uploaded again only when they change
    mps_file_marks refused{};    // are none of the modem's, and are said to be there once
};

// Opens the collector's record file, in place of an open one. What an earlier run left is handed
// over. Returns false after a failure, which is logged. Thread: the row's own, as for what follows.
bool mps_open_record(mps_collection* collection);

// Takes every data file of the modem's shared directory: each becomes a record of its own, in the
// dropbox when this returns, and is deleted, also when it was empty, could not be read or encoded,
// or has more than 16 MiB, which is not read. Only files of other names, files that cannot be
// opened and what is no regular file with one name stay, the last said to be there once; a file
// that cannot be deleted is taken, and said to be there, once, until it changes. Ends early when
// the row's stop is raised or its consent goes. Returns 0, or -1 when the directory cannot be
// opened; all failures are logged.
int mps_rfs_data_read(mps_collection* collection);

// Removes the files that mps_rfs_data_read would take, unread; each is logged.
void mps_rfs_data_discard();

// Encodes `length` bytes of data, as a metric with its times and kind or as raw data without, and
// hands the record over. Needs no copy of them. Data that do not fit into twice their length with
// their framing are lost. Failures are logged.
void mps_drop_collected_data_to_dropbox(const uint8_t* data, size_t length,
                                        mps_collection* collection, bool as_metric,
                                        mps_data_kind kind);
