// Modem log packets through the diagnostics library, for as long as a campaign lasts. All
// functions: the row's thread, unless said otherwise; failures are logged.
#pragma once

#include "timed_campaign/timed_campaign.h"

struct diag_session {
    static constexpr int NO_CLIENT = -1;
    int client_id = NO_CLIENT;
    bool library_is_up = false;
};

// Makes the buffers, registers with the library and asks for the campaign's log codes. The
// campaign's row, which lives as long as the process, says whether packets are kept. Returns 0 or
// -1; what was taken until then goes with diag_monitor_diag_deinit.
int diag_monitor_diag_init(diag_session* session, const timed_campaign& campaign);

// Ends the stream, if there is one, and frees the buffers and the campaign's list of codes, whose
// count stays. No packet is taken any more when it returns.
void diag_monitor_diag_deinit(diag_session* session, timed_campaign* campaign);

// The library's callback: puts a log packet into the buffers; one that comes without the owner's
// consent is dropped. Thread: the library's.
void process_dci_log_stream(unsigned char* data, int length);
