#include "campaign/campaign_rules.h"
#include "mps_events/mps_events.h"

namespace {

constexpr uint32_t FIRST_SWITCHED_MODULE = 1;  // module 0 is never switched

void switch_on(CampaignEntry* entry, uint32_t module) {
    entry->running = 1;
    if (module != CAMPAIGN_MPS_MODULE) return;
    mps_campaign_event(MPS_EVENT_CAMPAIGN_STOP);
    mps_campaign_event(MPS_EVENT_CAMPAIGN_START);
}

void switch_off(CampaignEntry* entry, uint32_t module) {
    entry->running = 0;
    if (module == CAMPAIGN_MPS_MODULE) mps_campaign_event(MPS_EVENT_CAMPAIGN_STOP);
}

void check_module(campaign_state* state, uint32_t module, time_t now) {
    unique_campaign& slot = state->table[module];
    if (!campaign_is_there(slot)) return;
    const bool expired = campaign_is_expired(*slot, now);
    const bool may_run = !expired && canCampaignBeEnabled(*state, module, now);
    if (slot->running && !may_run) switch_off(slot.get(), module);
    if (!slot->running && may_run) switch_on(slot.get(), module);
    if (expired) slot.reset();
}

}  // namespace

void campaign_mgr_check_for_camp_management(campaign_state* state, time_t now) {
    for (uint32_t module = FIRST_SWITCHED_MODULE; module < CAMPAIGN_MODULES; ++module) {
        check_module(state, module, now);
    }
}
