// The band-list updater: every 90 days it has the download agent fetch a newer list of the radio
// bands by country, and loads it into the modem. It samples nothing, and so needs no consent.
#pragma once

#include <cstdint>

#include "collectors/mccbandlist/mccbandlist_status.h"
#include "framework/row/collector_info.h"

// The row's thread body; returns 0. It ends when the row's `stop` is raised, when the row's
// download directory is gone, and when watching that fails, for which it raises `stop` itself. All
// failures are logged.
int mccbandlist_monitor(collector_info* entry);

// Reads the status and sleeps until interval_ms have passed since the last completed attempt
// (debug builds: five minutes). Returns early once `stop` is raised. Thread: the row's own.
void mccbandlist_wait_next_turn(uint64_t interval_ms, mccbandlist_status* status,
                                const stop_flag& stop);
