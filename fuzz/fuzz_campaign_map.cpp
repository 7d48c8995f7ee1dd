// A delivered campaign file, its campaigns judged by the rules.
#include "campaign/campaign_activity.h"
#include "campaign/campaign_map.h"
#include "campaign/campaign_switch.h"
#include "fuzz_target.h"

namespace {

void check_entry(const CampaignEntry& entry) {
    check(entry.mccMncCount <= CAMPAIGN_NETWORKS_MAX);
    check((entry.mccMncList != nullptr) == (entry.mccMncCount > 0));
    for (uint32_t i = 0; i < entry.mccMncCount; ++i) {
        check(entry.mccMncList[i].mncCount <= CAMPAIGN_MNCS_MAX);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr time_t NOW = 1700000000;
    const uint8_t* map = nullptr;
    size_t map_length = 0;
    if (!campaign_file_map(__func__, data, size, &map, &map_length)) return 0;
    campaign_state state;
    (void)campaignDecode(map, map_length, &state.table, false);
    state.phone = {.default_sub = 1, .mcc = 262, .mnc = 1};
    for (const unique_campaign& slot : state.table) {
        if (slot) check_entry(*slot);
    }
    for (int hour = 0; hour < 24; ++hour) {
        campaign_mgr_check_for_camp_management(state, NOW + hour * 3600);
        check(campaign_mgr_calc_activity_timer(state.table, NOW + hour * 3600).timeout_s >= 0);
    }
    return 0;
}
