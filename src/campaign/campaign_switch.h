// Switching campaigns on and off by what the rules say (campaign/campaign_rules.h).
#pragma once

#include <ctime>

#include "campaign/campaign_rules.h"

// Switches campaigns by what the clock and the phone's state are now. Any thread; takes the lock.
void campaign_check();

// Switches the campaigns of modules 1 to 6 on and off and frees the expired ones. For module 6 it
// raises the modem statistics collector's events. Logged. Thread: the holder of the campaign lock,
// which the compiler sees at a reference.
void campaign_mgr_check_for_camp_management(campaign_state& state, time_t now);
