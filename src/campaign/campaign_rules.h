// When campaigns may run. The rules are functions of the table, the phone's state and the wall
// clock, `now` in seconds since 1970; hours and days are those of the local time zone. All of them
// log how they decide. Thread: the holder of the campaign lock.
#pragma once

#include <cstdint>
#include <ctime>

#include "campaign/campaign_desc.h"

inline constexpr uint32_t CAMPAIGN_INVALID_SUB = 0x7FFFFFFF;
inline constexpr uint32_t CAMPAIGN_MPS_MODULE = 6;  // the modem statistics collector

// First moment that counts as a correct clock: 2018-01-01 00:00:00 UTC.
inline constexpr time_t CAMPAIGN_EPOCH_S = 1514764800;

// What the control socket told last.
struct phone_state {
    uint32_t default_sub = CAMPAIGN_INVALID_SUB;
    uint8_t roaming = 0;  // of the default subscription
    uint16_t mcc = 0;
    uint16_t mnc = 0;
};

struct campaign_state {
    campaign_table table{};
    phone_state phone{};
    int32_t next_activity_s = -1;  // how long the manager may wait; negative: without limit
};

inline bool campaign_is_expired(const CampaignEntry& entry, time_t now) {
    return now >= 0 && static_cast<uint64_t>(now) >= entry.expiryValue;
}

// Whether the campaign of `module` may run at this hour and day.
bool isTimeBasedEnabMetForCampaign(const campaign_table& table, uint32_t module, time_t now);

// Whether it may run on this network.
bool isMccMncBasedEnabMetForCampaign(const campaign_state& state, uint32_t module);

// Whether it may run: not expired, not roaming, and both of the above.
bool canCampaignBeEnabled(const campaign_state& state, uint32_t module, time_t now);

// Switches the campaigns of modules 1 to 6 on and off and frees the expired ones. For module 6 it
// raises the modem statistics collector's events.
void campaign_mgr_check_for_camp_management(campaign_state* state, time_t now);

// Hours from the beginning of the hour of `local` to the next hour that is enabled. Despite the
// name it is used to find the next disablement: deliberate.
uint32_t getHrsForNextDisablement(uint32_t time_slices, const tm& local);

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

// The next moment at which one of the rules can change its mind. The caller stores the time-out in
// its state.
campaign_activity campaign_mgr_calc_activity_timer(const campaign_table& table, time_t now);

// Seconds until a check can come to another result than one at `now` by the clock alone: the
// nearest expiry (0: it was met) or, where a campaign goes by the hour, the next full hour. -1
// without a campaign. Not logged.
int64_t campaign_next_change_s(const campaign_table& table, time_t now);
