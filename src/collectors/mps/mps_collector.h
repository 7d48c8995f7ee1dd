// The modem statistics collector: hands the collection logic of a campaign to the modem, has it
// hand over its results in time, and uploads them.
#pragma once

#include "framework/row/collector_info.h"

// The row's thread body; returns 0. It ends when the row's `stop` is raised, when the row is not
// opted in as it starts or `terminate` is set while it is not, or when its record or its threads
// cannot be made. A request to a modem that does not answer holds it for as long as the request may
// take, ten seconds. All failures are logged.
int mps_main(collector_info* collector);

// Has the thread notice that consent went or came: without it the modem collects nothing, and what
// it still hands over is removed unread. Not logged. Any thread; waits for nothing.
void mps_consent_changed(const collector_info& row);
