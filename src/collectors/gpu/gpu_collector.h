// The GPU collector: how busy the graphics processor is, at which clock, and how long it has spent
// at each. Everything else in this folder is its own business.
#pragma once

#include "framework/row/collector_info.h"

// The thread body of the row "gpu_collector". Runs until the row is stopped, or its sources failed
// three times in a row; raises the row's stop flag as it ends. Returns 0. Thread: the row's own.
int gpu_monitor(collector_info* row);
