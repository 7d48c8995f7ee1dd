// The diagnostic log collector: timed campaigns of modem log packets.
#pragma once

#include <cstdio>

#include "framework/row/collector_info.h"

// The row's thread body; returns 0. It ends when the row's `stop` is raised, when the row is not
// opted in, and after a record could not be written, for which it raises `stop` itself. All
// failures are logged.
int diag_monitor(collector_info* row);

// The row's cfg_read_handler: takes a campaign from a configuration file, local or downloaded, and
// starts it when the file says so. What is wrong with it is logged; the campaign then stays as it
// was. A null stream is none. Thread: the row's own.
void diag_cfg_handler(FILE* stream, collector_info* row);

// The row's cfg_update_handler: replaces the local file by one with the campaign as it stands.
// Returns 0, or -EINVAL, logged. Thread: the row's own.
int diag_cfg_update_handler(collector_info* row);

// The row's sig_handler: raises the row's `stop`, once diag_monitor has begun. Async-signal-safe;
// any thread.
void diag_dci_exit(int signo);
