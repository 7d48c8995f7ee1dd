// What the diagnostic collector's campaigns are called, in its files and in the log.
#pragma once

#include "timed_campaign/timed_campaign.h"

// The masks of its campaigns are the log codes that the modem is asked for.
extern const campaign_kind DIAG_CAMPAIGN;

// Loads the parameters until there is a campaign whose stop time has not passed: as
// campaign_wait_active. Thread: the row's own, inside campaign_run.
int diag_monitor_get_campaign_config(collector_info* row);
