// When campaigns may run. The rules are functions of the table, the phone's state and the wall
// clock, `now` in seconds since 1970; hours and days are those of the local time zone.
// campaign_judge decides and gives its reason; the predicates below it decide the same and log how.
// Thread: the holder of the campaign lock.
#pragma once

#include <cstdint>
#include <ctime>

#include "campaign/campaign_desc.h"
#include "mps_events/mps_campaign_board.h"

inline constexpr uint32_t CAMPAIGN_MPS_MODULE = 6;  // the modem statistics collector

// First moment that counts as a correct clock: 2018-01-01 00:00:00 UTC.
inline constexpr time_t CAMPAIGN_EPOCH_S = 1514764800;

struct campaign_state {
    campaign_table table{};
    phone_state phone{};           // what the control socket told last
    int32_t next_activity_s = -1;  // how long the manager may wait; negative: without limit
};

// Why a campaign may not run, in the order in which it is looked for: none of those before the one
// that is found holds.
enum class campaign_reason : uint8_t {
    WRONG_MODULE,
    NO_SUBSCRIPTION,  // which module 6 needs
    NO_CAMPAIGN,
    EXPIRED,
    ROAMING,
    WRONG_CLOCK,
    WRONG_HOUR,
    WRONG_DAY,
    UNKNOWN_NETWORK,  // it is bound to networks, and there is no subscription
    OTHER_NETWORK,
    MAY_RUN,
};

struct campaign_verdict {
    campaign_reason reason = campaign_reason::MAY_RUN;
    tm local{};  // by which hour and day were judged; all zero before they were

    bool may_run() const { return reason == campaign_reason::MAY_RUN; }
};

inline bool campaign_is_expired(const CampaignEntry& entry, time_t now) {
    return now >= 0 && static_cast<uint64_t>(now) >= entry.expiryValue;
}

// Whether the campaign of `module` may run, and why not. Not logged.
campaign_verdict campaign_judge(const campaign_state& state, uint32_t module, time_t now);

// Whether its networks alone let it run: MAY_RUN, UNKNOWN_NETWORK or OTHER_NETWORK. Not logged.
campaign_reason campaign_judge_networks(const CampaignEntry& entry, const phone_state& phone);

// Whether the campaign of `module` may run at this hour and day. Logged.
bool isTimeBasedEnabMetForCampaign(const campaign_table& table, uint32_t module, time_t now);

// Whether it may run on this network. Logged.
bool isMccMncBasedEnabMetForCampaign(const campaign_state& state, uint32_t module);

// Whether it may run: not expired, not roaming, and both of the above. Logged.
bool canCampaignBeEnabled(const campaign_state& state, uint32_t module, time_t now);
