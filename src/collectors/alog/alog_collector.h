// The Android log collector: timed campaigns that capture the main log buffer.
#pragma once

#include <cstdio>

#include "framework/row/collector_info.h"

// The row's thread body; returns 0. It ends when the row's `stop` is raised, when the row is not
// opted in, and after a failed write or at the end of the log, for which it raises `stop` itself.
// All failures are logged.
int alog_monitor(collector_info* row);

// The row's cfg_read_handler: takes a campaign from a configuration file, local or downloaded, and
// starts it when the file says so. What is wrong with it is logged; the campaign then stays as it
// was. A null stream is none. Thread: the row's own.
void alog_cfg_handler(FILE* stream, collector_info* row);

// The row's cfg_update_handler: replaces the local file by one with the campaign as it stands.
// Returns 0, or -EINVAL, logged. Thread: the row's own.
int alog_cfg_update_handler(collector_info* row);
