// The updater's dealings with the download agent: its request, and the files that come of it.
#pragma once

#include <limits.h>

#include <cstdint>
#include <string_view>

#include "framework/config/dload.h"

// The request, over the whole life of the updater's thread.
struct mccbandlist_request {
    dload_req fields{.client_id = 51,
                     .version = "1.0",
                     .key = nullptr,
                     .request_type = 0,
                     // 90 days in milliseconds, cut to 32 bits: deliberate.
                     .request_timer = static_cast<int32_t>(uint32_t{3481032704}),
                     .conn_type = 1,
                     .conn_timer = 86400};  // seconds
    char key[256] = "mccbandlist.bin";      // name of the wanted list
};

// Names the list after the last one loaded (last_key_ts, 0: none) and files the request. Returns 0,
// or vexastats_dload_req's error. Thread: the updater's.
int mccbandlist_send_dload_req(mccbandlist_request* request, uint64_t last_key_ts);

struct mccbandlist_download {
    char path[PATH_MAX] = "";  // of the downloaded file
    uint64_t key_ts = 0;       // from a status file that reports success
};

// Looks what the agent has put into `directory`, which must be no link, so far. The files of the
// request's course are deleted. At most 65536 names are read; of each sort the first 32 are logged,
// the others' number is. Returns 0 when the list was delivered (*status 200); -ENOENT: nothing yet,
// or no directory; -EEXIST: the list without a status file; *status: a status file without the
// list; -EINVAL: both, with another status. Logged. Thread: the updater's.
int mccbandlist_check_dload_result(const char* directory, const mccbandlist_request& request,
                                   int* status, mccbandlist_download* result);

// What a file in the download directory is, by its name.
enum class mccbandlist_file {
    OTHER,
    REQUEST,    // the request's own
    CANCELLED,  // tells that a request was cancelled
    STATUS,     // or progress, which counts as one
    LIST,
};
mccbandlist_file mccbandlist_classify(std::string_view name, const mccbandlist_request& request);

// The number behind the last "-" of a name; 0 when there is none or it is no int.
int mccbandlist_status_number(std::string_view name);

// Reads "%*[0-9]-%*[^-]-mccbandlist.bin.%lu". Returns false, with *key_ts left alone, when the name
// has another form.
bool mccbandlist_scan_key_ts(std::string_view name, uint64_t* key_ts);
