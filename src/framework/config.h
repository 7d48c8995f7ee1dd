// Collector configuration: local file, downloaded file, bounds.
#pragma once

#include "framework/collector_info.h"

// Loads the row's local configuration file, applies a pending downloaded one, and rewrites the
// local file when it was missing or invalid or a downloaded one was applied. The downloaded file is
// deleted only once the local file that records it is in place. A value is clamped into the row's
// bounds. Returns 0; -EINVAL for a null row; -1 when the local file needed writing and the row has
// no cfg_update_handler; otherwise that handler's result. Failures are logged; the row's values
// then stay in force. Thread: the row's own.
int vexastats_init_params(collector_info* row);

// The generic cfg_update_handler: replaces the local file by one with the row's values.
// Returns 0, or -EINVAL, logged. Thread: the row's own.
int vexastats_update_cfg(collector_info* row);
