// Waiting until the download agent delivers a configuration file.
#pragma once

#include "framework/files/delivered_file.h"
#include "framework/row/collector_info.h"

// How one collector logs its waits.
struct config_update_texts {
    const char* tag = nullptr;
    const char* caller = nullptr;  // function named when reading events fails
    const char* prefix = nullptr;  // in front of "Waiting for ..."
};

// Waits until the row's downloaded configuration file is created, moved in or modified, or turns
// out to be another one than `seen`; then sleeps a second, in which a file that is written in place
// gets whole. Other files that come are logged. A failure is logged, costs the second too and ends
// the wait; so does `stop` of the row, without any delay. Thread: the row's own.
void vexastats_wait_config_update(collector_info* row, const file_mark& seen,
                                  const config_update_texts& texts);
