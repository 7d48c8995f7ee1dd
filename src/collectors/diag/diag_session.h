// Modem log packets through the diagnostics library, for as long as a campaign lasts. All
// functions: the row's thread, unless said otherwise; failures are logged.
#pragma once

#include "framework/row/collector_info.h"

// Makes the buffers, registers with the library and asks for the campaign's log codes. `row`, which
// lives as long as the process, says whether packets are kept. Returns 0 or -1; what was taken
// until then goes with diag_monitor_diag_deinit.
int diag_monitor_diag_init(const collector_info* row);

// Ends the stream, if there is one, and frees the buffers and the campaign's list of codes, whose
// count stays. No packet is taken any more when it returns.
void diag_monitor_diag_deinit();

// The library's callback: puts a log packet into the buffers; one that comes without the owner's
// consent is dropped. Thread: the library's.
void process_dci_log_stream(unsigned char* data, int length);
