// What the log collector's campaigns are called, in its files and in the log.
#pragma once

#include "timed_campaign/timed_campaign.h"

// The masks of its campaigns select nothing: they are logged and written back.
extern const campaign_kind ALOG_CAMPAIGN;

// Loads the parameters until there is a campaign whose stop time has not passed: as
// campaign_wait_active. Thread: the row's own, inside campaign_run.
int alog_monitor_get_campaign_config(collector_info* row);
