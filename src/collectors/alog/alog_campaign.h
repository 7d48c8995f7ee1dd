// The campaign that the collector's configuration files have brought about, the row's thread alone.
#pragma once

#include "framework/record/record.h"
#include "framework/row/collector_info.h"
#include "timed_campaign/timed_campaign.h"

// The campaign that runs, or none. The masks select nothing: they are logged and written back.
extern timed_campaign g_alog_campaign;

// As the functions of timed_campaign/campaign_config.h that are called so.
void alog_campaign_run(collector_info* row, void (*run_cycle)(void* owner), void* owner);
bool alog_campaign_open_record(collector_info* row, record_handle* handle);
bool alog_campaign_resume_record(collector_info* row, record_handle* handle);
void alog_campaign_recover_record(collector_info* row, record_handle* handle);
void alog_campaign_hand_over_record(collector_info* row, record_handle* handle);
void alog_campaign_discard_record(collector_info* row, record_handle* handle);

// Ends the campaign in memory. The local file still names it, so the next load brings its number
// back, with a stop time that has passed.
void alog_campaign_end();

// Loads the parameters until there is a campaign whose stop time has not passed, waiting for
// configuration updates in between. Returns 0, the loader's error, or -EINTR once the row's `stop`
// is raised.
int alog_monitor_get_campaign_config(collector_info* row);
