#define LOG_TAG "vexastatsd"

#include "campaign/campaign_rules.h"

#include "campaign/campaign_time.h"
#include "platform/log.h"

namespace {

using enum campaign_reason;

constexpr int FIRST_DAY_BIT = 24;

// The rules that the texts name.
constexpr char TIME_RULE[] = "isTimeBasedEnabMetForCampaign";
constexpr char NETWORK_RULE[] = "isMccMncBasedEnabMetForCampaign";

// ---- Judging

bool has_bit(uint32_t mask, int bit) {
    return (mask >> bit & 1) != 0;
}

const CampaignEntry* find_entry(const campaign_table& table, uint32_t module) {
    return module < table.size() ? table[module].get() : nullptr;
}

campaign_verdict judge_time(const CampaignEntry& entry, time_t now) {
    if (now < CAMPAIGN_EPOCH_S) return {.reason = WRONG_CLOCK};
    const tm local = local_time(now);
    if ((entry.enablementType & CAMPAIGN_TIME_BASED) == 0) return {MAY_RUN, local};
    if (!has_bit(entry.timeSlices, local.tm_hour)) return {WRONG_HOUR, local};
    if (!has_bit(entry.timeSlices, FIRST_DAY_BIT + local.tm_wday)) return {WRONG_DAY, local};
    return {MAY_RUN, local};
}

bool record_matches(const MccMncEnablementRecord& record, const phone_state& phone) {
    if (record.mcc != phone.mcc) return false;
    if (record.mncCount == 0) return true;
    for (uint32_t i = 0; i < record.mncCount; ++i) {
        if (record.mnc[i] == phone.mnc) return true;
    }
    return false;
}

// ---- Saying how it was judged

void log_no_campaign(uint32_t module) {
    ALOGE("No campaign for module index %d", static_cast<int>(module));
}

void log_default_sub(const phone_state& phone) {
    ALOGI("Default sub = %d", static_cast<int>(phone.default_sub));
}

void log_time(const CampaignEntry& entry, uint32_t module, const campaign_verdict& verdict) {
    if (verdict.reason == WRONG_CLOCK) {
        ALOGE("UTC time is not correct %s", TIME_RULE);
        return;
    }
    const auto module_index = static_cast<int>(module);
    ALOGI("%s: Current local time and date: %s", TIME_RULE, time_text(verdict.local).text);
    if ((entry.enablementType & CAMPAIGN_TIME_BASED) == 0) {
        ALOGI("%s: Enablement type %d is not time based and hence can be enabled for module %d",
              TIME_RULE, static_cast<int>(entry.enablementType), module_index);
    } else if (verdict.reason == WRONG_HOUR) {
        ALOGI("%s: Campaign for module %d is not enabled for this hour %d", TIME_RULE, module_index,
              verdict.local.tm_hour);
    } else if (verdict.reason == WRONG_DAY) {
        ALOGI("%s: Campaign for module %d is not enabled for this day %d", TIME_RULE, module_index,
              verdict.local.tm_wday);
    }
}

void log_networks(const CampaignEntry& entry, uint32_t module, const phone_state& phone,
                  campaign_reason reason) {
    if ((entry.enablementType & CAMPAIGN_MCC_MNC_BASED) == 0) {
        ALOGI("%s: Enablement type %d is not MCC_MNC based and hence can be enabled for module %d",
              NETWORK_RULE, static_cast<int>(entry.enablementType), static_cast<int>(module));
        return;
    }
    log_default_sub(phone);
    if (reason == UNKNOWN_NETWORK) {
        ALOGI("%s: Default Sub Id is invalid", NETWORK_RULE);
        return;
    }
    ALOGI("Num MCC MNC Enablement for module %d is %d\n", static_cast<int>(module),
          static_cast<int>(entry.mccMncCount));
    if (reason == OTHER_NETWORK) {
        ALOGI("Could not find MCC MNC in the enablement logic: Campaign can not be activated\n");
    }
}

}  // namespace

campaign_reason campaign_judge_networks(const CampaignEntry& entry, const phone_state& phone) {
    if ((entry.enablementType & CAMPAIGN_MCC_MNC_BASED) == 0) return MAY_RUN;
    if (phone.default_sub == CAMPAIGN_INVALID_SUB) return UNKNOWN_NETWORK;
    if (entry.mccMncCount == 0 || !entry.mccMncList) return MAY_RUN;
    for (uint32_t i = 0; i < entry.mccMncCount; ++i) {
        if (record_matches(entry.mccMncList[i], phone)) return MAY_RUN;
    }
    return OTHER_NETWORK;
}

campaign_verdict campaign_judge(const campaign_state& state, uint32_t module, time_t now) {
    const phone_state& phone = state.phone;
    if (module >= CAMPAIGN_MODULES) return {.reason = WRONG_MODULE};
    if (module == CAMPAIGN_MPS_MODULE && phone.default_sub == CAMPAIGN_INVALID_SUB) {
        return {.reason = NO_SUBSCRIPTION};
    }
    const CampaignEntry* entry = find_entry(state.table, module);
    if (!entry) return {.reason = NO_CAMPAIGN};
    if (campaign_is_expired(*entry, now)) return {.reason = EXPIRED};
    if (phone.roaming != 0) return {.reason = ROAMING};
    campaign_verdict verdict = judge_time(*entry, now);
    if (verdict.may_run()) verdict.reason = campaign_judge_networks(*entry, phone);
    return verdict;
}

bool isTimeBasedEnabMetForCampaign(const campaign_table& table, uint32_t module, time_t now) {
    const CampaignEntry* entry = find_entry(table, module);
    if (!entry) {
        log_no_campaign(module);
        return false;
    }
    const campaign_verdict verdict = judge_time(*entry, now);
    log_time(*entry, module, verdict);
    return verdict.may_run();
}

bool isMccMncBasedEnabMetForCampaign(const campaign_state& state, uint32_t module) {
    const CampaignEntry* entry = find_entry(state.table, module);
    if (!entry) {
        log_no_campaign(module);
        return false;
    }
    const campaign_reason reason = campaign_judge_networks(*entry, state.phone);
    log_networks(*entry, module, state.phone, reason);
    return reason == MAY_RUN;
}

bool canCampaignBeEnabled(const campaign_state& state, uint32_t module, time_t now) {
    const campaign_reason reason = campaign_judge(state, module, now).reason;
    if (reason == WRONG_MODULE) {
        ALOGE("Wrong module index %d passed to %s", static_cast<int>(module), __func__);
        return false;
    }
    if (module == CAMPAIGN_MPS_MODULE) log_default_sub(state.phone);
    if (reason == NO_CAMPAIGN) log_no_campaign(module);
    if (reason < ROAMING) return false;
    ALOGI("Roaming Status on default sub = %d", state.phone.roaming);
    return reason != ROAMING && isTimeBasedEnabMetForCampaign(state.table, module, now) &&
           isMccMncBasedEnabMetForCampaign(state, module);
}
