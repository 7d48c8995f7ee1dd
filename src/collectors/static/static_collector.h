// The static information collector: what does not change while the device runs, once per start of
// the daemon; then the state of the IMS service and the DRM level, as long as the daemon runs.
#pragma once

#include "framework/row/collector_info.h"

// The thread of the "static_collector" row. Returns 0 once the row's `stop` is raised or there is
// nothing more to report. Failures are logged.
int static_monitor(collector_info* row);
