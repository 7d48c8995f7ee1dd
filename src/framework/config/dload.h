// Requests to the download agent.
#pragma once

#include <cstdint>

#include "framework/row/collector_info.h"

struct dload_req {
    int32_t client_id = 0;
    const char* version = nullptr;
    const char* key = nullptr;  // name of the wanted file
    int32_t request_type = 1;
    int32_t request_timer = 31536000;  // s: a year
    int32_t conn_type = 1;
    int32_t conn_timer = 360;
};

// Writes the request file "/data/vendor/vexa/down/<id>/<id>-<version>-<key>.req", over an older one
// for the same file. Returns 0, or -EINVAL, logged. Any thread.
int vexastats_dload_req(const dload_req* req);

// Whether the row's download directory can be opened; logged either way. Any thread.
bool vexastats_is_dl_enabled(const collector_info* row);

// Deletes every entry of the row's download directory; each is logged. Any thread.
void vexastats_dl_cleanup(const collector_info* row);
