// The modem statistics collector: hands the collection logic of a campaign to the modem, has it
// hand over its results in time, and uploads them.
#pragma once

#include "framework/collector_info.h"

// The row's thread body; returns 0. It ends when the row's `stop` is raised, when the row is not
// opted in, or when its record or its threads cannot be made. A request to a modem that does not
// answer holds it for as long as the request may take, ten seconds. All failures are logged.
int mps_main(collector_info* collector);
