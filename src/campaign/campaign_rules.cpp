#define LOG_TAG "vexastatsd"

#include "campaign/campaign_rules.h"

#include "campaign/local_time.h"
#include "platform/log.h"

namespace {

constexpr int FIRST_DAY_BIT = 24;

bool has_bit(uint32_t mask, int bit) {
    return (mask >> bit & 1) != 0;
}

// The entry of a module's slot; null, logged, when there is none.
const CampaignEntry* find_entry(const campaign_table& table, uint32_t module) {
    if (module < table.size() && table[module]) return table[module].get();
    ALOGE("No campaign for module index %d", static_cast<int>(module));
    return nullptr;
}

bool record_matches(const MccMncEnablementRecord& record, const phone_state& phone) {
    if (record.mcc != phone.mcc) return false;
    if (record.mncCount == 0) return true;
    for (uint32_t i = 0; i < record.mncCount; ++i) {
        if (record.mnc[i] == phone.mnc) return true;
    }
    return false;
}

void log_default_sub(const phone_state& phone) {
    ALOGI("Default sub = %d", static_cast<int>(phone.default_sub));
}

}  // namespace

bool isTimeBasedEnabMetForCampaign(const campaign_table& table, uint32_t module, time_t now) {
    const CampaignEntry* entry = find_entry(table, module);
    if (!entry) return false;
    if (now < CAMPAIGN_EPOCH_S) {
        ALOGE("UTC time is not correct %s", __func__);
        return false;
    }
    const tm local = local_time(now);
    ALOGI("%s: Current local time and date: %s", __func__, time_text(local).text);
    if ((entry->enablementType & CAMPAIGN_TIME_BASED) == 0) {
        ALOGI("%s: Enablement type %d is not time based and hence can be enabled for module %d",
              __func__, static_cast<int>(entry->enablementType), static_cast<int>(module));
        return true;
    }
    if (!has_bit(entry->timeSlices, local.tm_hour)) {
        ALOGI("%s: Campaign for module %d is not enabled for this hour %d", __func__,
              static_cast<int>(module), local.tm_hour);
        return false;
    }
    if (!has_bit(entry->timeSlices, FIRST_DAY_BIT + local.tm_wday)) {
        ALOGI("%s: Campaign for module %d is not enabled for this day %d", __func__,
              static_cast<int>(module), local.tm_wday);
        return false;
    }
    return true;
}

bool isMccMncBasedEnabMetForCampaign(const campaign_state& state, uint32_t module) {
    const CampaignEntry* entry = find_entry(state.table, module);
    if (!entry) return false;
    if ((entry->enablementType & CAMPAIGN_MCC_MNC_BASED) == 0) {
        ALOGI("%s: Enablement type %d is not MCC_MNC based and hence can be enabled for module %d",
              __func__, static_cast<int>(entry->enablementType), static_cast<int>(module));
        return true;
    }
    log_default_sub(state.phone);
    if (state.phone.default_sub == CAMPAIGN_INVALID_SUB) {
        ALOGI("%s: Default Sub Id is invalid", __func__);
        return false;
    }
    ALOGI("Num MCC MNC Enablement for module %d is %d\n", static_cast<int>(module),
          static_cast<int>(entry->mccMncCount));
    if (entry->mccMncCount == 0 || !entry->mccMncList) return true;
    for (uint32_t i = 0; i < entry->mccMncCount; ++i) {
        if (record_matches(entry->mccMncList[i], state.phone)) return true;
    }
    ALOGI("Could not find MCC MNC in the enablement logic: Campaign can not be activated\n");
    return false;
}

bool canCampaignBeEnabled(const campaign_state& state, uint32_t module, time_t now) {
    if (module >= CAMPAIGN_MODULES) {
        ALOGE("Wrong module index %d passed to %s", static_cast<int>(module), __func__);
        return false;
    }
    if (module == CAMPAIGN_MPS_MODULE) {
        log_default_sub(state.phone);
        if (state.phone.default_sub == CAMPAIGN_INVALID_SUB) return false;
    }
    const CampaignEntry* entry = find_entry(state.table, module);
    if (!entry || campaign_is_expired(*entry, now)) return false;
    ALOGI("Roaming Status on default sub = %d", state.phone.roaming);
    return state.phone.roaming == 0 && isTimeBasedEnabMetForCampaign(state.table, module, now) &&
           isMccMncBasedEnabMetForCampaign(state, module);
}
