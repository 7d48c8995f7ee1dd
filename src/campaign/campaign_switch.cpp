#include "campaign/campaign_switch.h"

#include "campaign/campaign_table.h"
#include "campaign/campaign_time.h"
#include "mps_events/mps_events.h"

namespace {

constexpr uint32_t FIRST_SWITCHED_MODULE = 1;  // module 0 is never switched

void switch_on(CampaignEntry* entry, uint32_t module) {
    entry->running = 1;
    if (module != CAMPAIGN_MPS_MODULE) return;
    // The modem may still collect for a daemon that was killed: that is flushed first.
    mps_campaign_event(MPS_EVENT_CAMPAIGN_STOP);
    mps_campaign_event(MPS_EVENT_CAMPAIGN_START);
}

void switch_off(CampaignEntry* entry, uint32_t module) {
    entry->running = 0;
    if (module == CAMPAIGN_MPS_MODULE) mps_campaign_event(MPS_EVENT_CAMPAIGN_STOP);
}

// A campaign stops here when its hour or day ends, its network changes, roaming begins or it
// expires.
void check_module(campaign_state& state, uint32_t module, time_t now) {
    unique_campaign& slot = state.table[module];
    if (!campaign_is_there(slot)) return;
    const bool expired = campaign_is_expired(*slot, now);
    const bool may_run = !expired && canCampaignBeEnabled(state, module, now);
    if (slot->running && !may_run) switch_off(slot.get(), module);
    if (!slot->running && may_run) switch_on(slot.get(), module);
    if (expired) slot.reset();
}

}  // namespace

void campaign_check() {
    const time_t now = wall_clock_s();
    const vexa_lock lock(g_campaign.lock);
    campaign_mgr_check_for_camp_management(g_campaign.state, now);
}

void campaign_mgr_check_for_camp_management(campaign_state& state, time_t now) {
    for (uint32_t module = FIRST_SWITCHED_MODULE; module < CAMPAIGN_MODULES; ++module) {
        check_module(state, module, now);
    }
}
