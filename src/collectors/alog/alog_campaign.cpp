#define LOG_TAG "vexastatsd-alog"

#include "collectors/alog/alog_campaign.h"

#include "collectors/alog/alog_collector.h"
#include "platform/log.h"

const campaign_kind ALOG_CAMPAIGN = {
    .key = "alog",
    .config_file = "alogstats.cfg",
    .record_dir = "/data/vendor/vexastats/501",
    .record_file = "alogstats.tmp",
    .texts = {.tag = LOG_TAG,
              .request_caller = "alog_monitor_set_cfg_dload_req",
              .title = "Alog",
              .logs_update_wait = true,
              .update = {.tag = LOG_TAG,
                         .caller = "alog_collect_wait_for_config_update",
                         .prefix = " "}},
};

void alog_cfg_handler(FILE* stream, collector_info* row) {
    if (!stream) return;
    ALOGI("%s: \n", __func__);
    timed_campaign* campaign = campaign_of(*row);
    const int32_t active_id = campaign->state.id;
    switch (campaign_read_config(stream, campaign)) {
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
    ALOGI("alog_collect_stop_time %lu", static_cast<unsigned long>(campaign->state.stop_time_s));
}

int alog_cfg_update_handler(collector_info* row) {
    ALOGI("%s: cfg_fname %s\n", __func__, row->cfg_file);
    return campaign_write_config(*campaign_of(*row));
}

int alog_monitor_get_campaign_config(collector_info* row) {
    return campaign_wait_active(campaign_of(*row));
}
