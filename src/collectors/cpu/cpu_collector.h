// The CPU collector: load and frequency of every core, temperatures, battery, backlight, network
// traffic and processes. Everything else in this folder is its own business.
#pragma once

#include "framework/row/collector_info.h"

// The thread body of the row "cpu_collector". Runs until the row is stopped, or its sources failed
// three times in a row; raises the row's stop flag as it ends. Returns 0. Thread: the row's own.
int cpu_monitor(collector_info* row);
