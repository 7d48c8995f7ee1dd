#define LOG_TAG "vexastatsd-alog"

#include "collectors/alog/alog_campaign.h"

#include "collectors/alog/alog_collector.h"
#include "platform/log.h"
#include "timed_campaign/campaign_config.h"

constinit timed_campaign g_alog_campaign;

namespace {

constexpr campaign_kind KIND = {
    .tag = LOG_TAG,
    .request_caller = "alog_monitor_set_cfg_dload_req",
    .config_file = "alogstats.cfg",
    .record_dir = "/data/vendor/vexastats/501",
    .record_file = "alogstats.tmp",
    .key = "alog",
    .title = "Alog",
    .loader = "alog",
    .state_prefix = "",
    .wait_prefix = "",
    .update = {.tag = LOG_TAG, .caller = "alog_collect_wait_for_config_update", .prefix = " "},
    .logs_update_wait = true,
};

}  // namespace

void alog_cfg_handler(FILE* stream, collector_info* row) {
    if (!stream) return;
    ALOGI("%s: \n", __func__);
    const int32_t active_id = g_alog_campaign.id;
    switch (campaign_read_config(stream, row, KIND, &g_alog_campaign)) {
        case campaign_change::REFUSED:
            return;
        case campaign_change::ALREADY_ACTIVE:
            ALOGI("already active campaign id %d \n", active_id);
            return;
        case campaign_change::NO_MEMORY:
            ALOGE("%s: malloc failed", __func__);
            return;
        case campaign_change::STARTED:
            ALOGI("alog_active_campaign_id %d", NO_CAMPAIGN);
            break;
        case campaign_change::GOES_ON:
            break;
    }
    ALOGI("alog_collect_stop_time %lu", static_cast<unsigned long>(g_alog_campaign.stop_time_s));
}

int alog_cfg_update_handler(collector_info* row) {
    ALOGI("%s: cfg_fname %s\n", __func__, row->cfg_file);
    return campaign_write_config(*row, KIND, g_alog_campaign);
}

void alog_campaign_run(collector_info* row, void (*run_cycle)(void* owner), void* owner) {
    campaign_run(row, KIND, &g_alog_campaign, run_cycle, owner);
}

bool alog_campaign_open_record(collector_info* row, record_handle* handle) {
    return campaign_open_record(row, KIND, handle);
}

bool alog_campaign_resume_record(collector_info* row, record_handle* handle) {
    return campaign_resume_record(row, KIND, handle);
}

void alog_campaign_recover_record(collector_info* row, record_handle* handle) {
    campaign_recover_record(row, KIND, handle);
}

void alog_campaign_hand_over_record(collector_info* row, record_handle* handle) {
    campaign_hand_over_record(row, KIND, handle);
}

void alog_campaign_discard_record(collector_info* row, record_handle* handle) {
    campaign_discard_record(row, KIND, handle);
}

void alog_campaign_end() {
    campaign_end(&g_alog_campaign);
}

int alog_monitor_get_campaign_config(collector_info* row) {
    return campaign_wait_active(row, KIND, &g_alog_campaign);
}
