// When the manager looks at its campaigns again.
#pragma once

#include <cstdint>
#include <ctime>

#include "campaign/campaign_rules.h"

enum campaign_activity_type : uint32_t {
    CAMPAIGN_ACTIVITY_NONE = 0,  // the default of a day
    CAMPAIGN_ACTIVITY_EXPIRY = 1,
    CAMPAIGN_ACTIVITY_ENABLEMENT = 2,
    CAMPAIGN_ACTIVITY_DISABLEMENT = 3,
};

struct campaign_activity {
    int32_t timeout_s = -1;  // -1: no limit, the clock is not correct
    uint32_t module = 1;
    campaign_activity_type type = CAMPAIGN_ACTIVITY_NONE;
};

// Hours from the beginning of the hour of `local` to the next hour that is enabled. Despite the
// name it is used to find the next disablement: deliberate. Any thread.
uint32_t getHrsForNextDisablement(uint32_t time_slices, const tm& local);

// The next moment at which one of the rules can change its mind. The caller stores the time-out in
// its state. Logs what it compares. Thread: the holder of the campaign lock.
campaign_activity campaign_mgr_calc_activity_timer(const campaign_table& table, time_t now);

// How long the manager may sleep until its next check, in milliseconds; negative: without limit.
// It is what the last change of the table computed, and stays that. Once an expiry was met, though,
// which makes it ten seconds for good, the checks that cannot change anything are passed over: in
// the rhythm of the ten seconds, the next one comes when a campaign's hour or expiry has come, and
// none without a campaign. Thread: the manager's; takes the lock.
int64_t campaign_take_timeout_ms();
