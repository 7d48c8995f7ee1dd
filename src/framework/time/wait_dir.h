// Waiting for a directory that somebody else makes.
#pragma once

#include "framework/time/stop.h"

// Blocks until directory `path` exists or `stop` is raised. The wait, its end and failures are
// logged; after a failure it returns early. Any thread.
void vexastats_wait_dir_ready(const char* path, const stop_flag* stop);
