#define LOG_TAG "vexastatsd"

#include "campaign/campaign_table.h"

#include <string.h>
#include <unistd.h>

#include "campaign/campaign_activity.h"
#include "campaign/campaign_time.h"
#include "framework/files/whole_file.h"
#include "mps_events/mps_events.h"
#include "platform/log.h"

campaign_shared g_campaign;

namespace {

// Stored files that a take-over leaves without a campaign.
struct replaced_files {
    bool any = false;         // a campaign was replaced; never taken back: deliberate
    campaign_path last = {};  // the file of the live campaign looked at last; empty: to be kept
};

void delete_replaced(const replaced_files& files) {
    if (files.any && files.last[0] != '\0') (void)unlink(files.last.data());
}

// A campaign of the same id came again. Only an expiry of 0, which withdraws it, is taken over; the
// expiries are not compared, whatever the message says: deliberate.
void meet_same_campaign(uint32_t module, const CampaignEntry& fresh, CampaignEntry* live,
                        replaced_files* files) {
    if (fresh.expiryValue != 0) {
        ALOGI("Ignore campaign file for module %d as campaign id and expiry same",
              static_cast<int>(module));
    } else {
        live->expiryValue = 0;
        ALOGI("Replacing old campaign file with new capaign for module %d",
              static_cast<int>(module));
        files->any = true;
    }
    delete_replaced(*files);
}

// Ends the live campaign, whose entry the new one takes.
void retire_live_campaign(uint32_t module, CampaignEntry* live, replaced_files* files) {
    ALOGI("Campaign Ids are different");
    ALOGI("Replacing old campaign file with new capaign for module %d", static_cast<int>(module));
    if (live->running) {
        // Whatever the module: deliberate.
        mps_campaign_event(MPS_EVENT_CAMPAIGN_STOP);
        live->running = 0;
    }
    files->any = true;
}

// Copies a decoded campaign into a live entry. Returns false, logged, without memory.
bool copy_campaign(uint32_t module, const CampaignEntry& fresh, CampaignEntry* live) {
    live->campaignId = fresh.campaignId;
    live->expiryValue = fresh.expiryValue;
    live->enablementType = fresh.enablementType;
    live->timeSlices = fresh.timeSlices;
    live->mccMncCount = fresh.mccMncCount;
    live->mccMncList.reset();
    if (fresh.mccMncCount == 0) return true;
    live->mccMncList = campaign_network_list_new();
    if (!live->mccMncList) {
        ALOGE("Could not malloc for campaign mcc/mnc enablement for module %d",
              static_cast<int>(module));
        return false;
    }
    // Only the first network is taken over, the others stay zero: deliberate.
    if (fresh.mccMncList) live->mccMncList[0] = fresh.mccMncList[0];
    return true;
}

// Only module 6 is started here; the others wait for the next check.
void start_if_possible(campaign_state* state, uint32_t module, time_t now) {
    if (!canCampaignBeEnabled(*state, module, now) || module != CAMPAIGN_MPS_MODULE) return;
    mps_campaign_event(MPS_EVENT_CAMPAIGN_START);
    state->table[module]->running = 1;
}

void put_in_force(campaign_state* state, uint32_t module, const CampaignEntry& fresh, time_t now,
                  replaced_files* files) {
    unique_campaign& slot = state->table[module];
    const campaign_path new_file = campaign_file_name(module, fresh);
    if (slot) {
        files->last = campaign_file_name(module, *slot);
        // Different campaigns can have the same file, which is then the new one's.
        if (strcmp(files->last.data(), new_file.data()) == 0) files->last = {};
    }
    if (slot && slot->campaignId == fresh.campaignId) {
        meet_same_campaign(module, fresh, slot.get(), files);
        return;
    }
    if (slot && slot->campaignId != 0) retire_live_campaign(module, slot.get(), files);
    if (!slot) slot = campaign_entry_new();
    if (!slot) {
        ALOGE("Could not malloc for campaign entry for module %d", static_cast<int>(module));
        return;
    }
    if (copy_campaign(module, fresh, slot.get())) {
        start_if_possible(state, module, now);
    } else {
        slot.reset();
    }
    delete_replaced(*files);
}

}  // namespace

void campaign_table_clear() {
    const vexa_lock lock(g_campaign.lock);
    g_campaign.state = {};
}

void updateCampaignTableAndAct(const campaign_table& fresh) {
    const time_t now = wall_clock_s();
    const vexa_lock lock(g_campaign.lock);
    campaign_state* state = &g_campaign.state;
    replaced_files files;
    for (uint32_t module = 0; module < CAMPAIGN_MODULES; module++) {
        if (fresh[module] && fresh[module]->campaignId != 0) {
            put_in_force(state, module, *fresh[module], now, &files);
        }
    }
    state->next_activity_s = campaign_mgr_calc_activity_timer(state->table, now).timeout_s;
}

void campaign_mgr_get_campaign(uint32_t module, owned_bytes* logic, uint32_t* campaign_id) {
    if (!logic || !campaign_id) {
        ALOGE("NULL passed to function %s", __func__);
        return;
    }
    *logic = {};
    if (module >= CAMPAIGN_MODULES) {
        ALOGE("%s: Invalid module type", __func__);
        return;
    }
    const vexa_lock lock(g_campaign.lock);
    const unique_campaign& slot = g_campaign.state.table[module];
    if (!slot || slot->campaignId == 0) {
        ALOGE("No campaign for module %d %s", static_cast<int>(module), __func__);
        return;
    }
    owned_bytes stored;
    if (vexastats_read_file(campaign_file_name(module, *slot).data(), __func__, &stored) == 0) {
        (void)get_campaign_logic_from_campaign_description(stored.bytes.get(), stored.length,
                                                           logic);
    }
    *campaign_id = static_cast<uint32_t>(slot->campaignId);
}

bool campaign_mgr_get_ph_info(phone_state* out) {
    if (!out) {
        ALOGE("NULL passed to function %s", __func__);
        return false;
    }
    const vexa_lock lock(g_campaign.lock);
    *out = g_campaign.state.phone;
    return true;
}
