// Collector configuration: local file, downloaded file, bounds.
#pragma once

#include "framework/row/collector_info.h"

// Largest upload file that a row's `size` may ask for, bytes.
inline constexpr int32_t CONFIG_SIZE_MAX = 0x100000;

// A pair of configuration files and what becomes of their values. `owner` is handed to the
// functions as it is.
struct config_files {
    const char* local = nullptr;       // null: none
    const char* downloaded = nullptr;  // null: none
    uint32_t client_id = 0;            // in messages
    void* owner = nullptr;

    // Takes the value line (framework/config/config_line.h) of the local or of the downloaded file;
    // false when it is invalid. A file without such a line is valid and changes nothing.
    bool (*read_line)(void* owner, const char* line, bool is_local) = nullptr;

    // Parses the whole stream instead, which may be null; null: read_line does it.
    void (*read_stream)(void* owner, FILE* stream) = nullptr;

    // Writes the local file; null: it cannot be written. Returns 0 or the failure, logged.
    int (*update_local)(void* owner) = nullptr;
};

// Loads the local file, then a pending downloaded one, and rewrites the local file when it was
// missing or invalid or a downloaded one was taken. The downloaded file is deleted only once the
// local file that records it is in place; an invalid one stays, and so does one that was delivered
// while the last one was taken in. Returns 0; -1 when the local file
// cannot be written; otherwise what update_local returned. Failures are logged. Any thread.
int vexastats_load_config(const config_files& files);

// Loads the row's local configuration file, applies a pending downloaded one, and rewrites the
// local file when it was missing or invalid or a downloaded one was applied. The downloaded file is
// deleted only once the local file that records it is in place. A value is clamped into the row's
// bounds. Returns 0; -EINVAL for a null row; -1 when the local file needed writing and the row has
// no cfg_update_handler; otherwise that handler's result. Failures are logged; the row's values
// then stay in force. Thread: the row's own.
int vexastats_init_params(collector_info* row);

// Loads the row's parameters again once more than `life_ms` of uptime have passed since *loaded_ms,
// which then becomes now. A failure is logged. Thread: the row's own.
void vexastats_reload_params(collector_info* row, uint64_t* loaded_ms, uint64_t life_ms);

// The generic cfg_update_handler: replaces the local file by one with the row's values.
// Returns 0, or -EINVAL, logged. Thread: the row's own.
int vexastats_update_cfg(collector_info* row);
