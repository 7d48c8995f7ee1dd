// The microdump collector: keeps what the modem's crash-dump device delivers, each dump with its
// crash time, and uploads it after some days. Everything else in this folder is its own business.
#pragma once

#include "framework/row/collector_info.h"

// The thread body of the row "microdump_collector". Runs until the row is stopped or the device
// cannot be opened; a record that cannot be is tried again with every dump. Raises the row's stop
// flag as it ends. Returns 0. Thread: the row's own.
int microdump_monitor(collector_info* row);
