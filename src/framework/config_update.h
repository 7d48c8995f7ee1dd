// Waiting until the download agent delivers a configuration file.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "framework/collector_info.h"

// Which file was last looked at, so that one that came since can be told from one that was left
// lying there.
struct config_file_mark {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    int64_t size = 0;
    int64_t mtime_ns = 0;

    bool operator==(const config_file_mark&) const = default;
};

// The mark of the file that is at `path` now, or that `fd` has open; taken before the file is read.
config_file_mark config_file_look(const char* path);
config_file_mark config_file_look(int fd);

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
void vexastats_wait_config_update(collector_info* row, const config_file_mark& seen,
                                  const config_update_texts& texts);
