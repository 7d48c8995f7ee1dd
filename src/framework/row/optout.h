// The owner's consent: a collector is opted in while its dropbox directory exists. The opt-out
// monitor keeps every row's `enabled` in step with its directory and carries out the shutdown.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "framework/row/collector_info.h"

struct optout_context {
    collector_info* table = nullptr;
    pthread_t monitor{};
    vexa_mutex mutex{};  // locked by nobody: the stop flag does what it was for
    int32_t count = 0;   // rows in the table
    stop_flag stop{};
};

// The opt-out monitor's thread body; returns 0. It ends when context->stop is raised or its watch
// fails, and then stops every running row. Failures are logged.
int optout_monitor(optout_context* context);

// One pass over the rows: terminate 0 brings `enabled` in step with the directories, 1 is the
// shutdown pass. Changes are logged. Thread: the monitor, or main when it could not be started.
void optout_handle(optout_context* context, int terminate);

// Raises the stop flag of every running row, wakes whatever it waits in, and returns once no row is
// in a library call that only a signal can end. Thread: as optout_handle.
void optout_stop_rows(optout_context* context);

// Returns when the row is enabled, or its `terminate` or `stop` was set; test `enabled` afterwards.
// Null: returns at once. Thread: the row's own.
void vexastats_wait_optin(collector_info* row);

// Waits until property "vendor.orb.vexa.enabled" reads "1", looking every 5 s, for at most
// timeout_s seconds or until `stop` is raised. Returns 0 once it does, else -EINVAL; the waits are
// logged.
int vexastats_wait_prop_enalbled(int timeout_s, const stop_flag& stop);
