// The campaign that the collector's configuration files have brought about, the row's thread alone.
#pragma once

#include "framework/record/record.h"
#include "framework/row/collector_info.h"
#include "timed_campaign/timed_campaign.h"

// The campaign that runs, or none. Its masks are the log codes that the modem is asked for.
extern timed_campaign g_diag_campaign;

// As the functions of timed_campaign/campaign_config.h that are called so.
void diag_campaign_run(collector_info* row, void (*run_cycle)(void* owner), void* owner);
bool diag_campaign_open_record(collector_info* row, record_handle* handle);
bool diag_campaign_resume_record(collector_info* row, record_handle* handle);
void diag_campaign_recover_record(collector_info* row, record_handle* handle);
void diag_campaign_hand_over_record(collector_info* row, record_handle* handle);
void diag_campaign_discard_record(collector_info* row, record_handle* handle);

// Ends the campaign in memory. The local file still names it, so the next load brings its number
// back, with a stop time that has passed.
void diag_campaign_end();

// Loads the parameters until there is a campaign whose stop time has not passed, waiting for
// configuration updates in between. Returns 0, the loader's error, or -EINTR once the row's `stop`
// is raised.
int diag_monitor_get_campaign_config(collector_info* row);
