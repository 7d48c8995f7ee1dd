#define LOG_TAG "vexastatsd"

#include "collectors/diag/diag_campaign.h"

#include "collectors/diag/diag_collector.h"
#include "timed_campaign/campaign_config.h"

constinit timed_campaign g_diag_campaign;

namespace {

constexpr campaign_kind KIND = {
    .tag = LOG_TAG,
    .request_caller = "diag_monitor_set_cfg_dload_req",
    .config_file = "diagstats.cfg",
    .record_dir = "/data/vendor/vexastats/4",
    .record_file = "diagstats.tmp",
    .key = "diag",
    .title = "Diag",
    .loader = "diag",
    .state_prefix = "DIAGSTATS : ",
    .wait_prefix = "DIAGSTATS: ",
    .update = {.tag = LOG_TAG,
               .caller = "diag_collect_wait_for_config_update",
               .prefix = "DIAGSTATS: "},
};

}  // namespace

void diag_cfg_handler(FILE* stream, collector_info* row) {
    (void)campaign_read_config(stream, row, KIND, &g_diag_campaign);
}

int diag_cfg_update_handler(collector_info* row) {
    return campaign_write_config(*row, KIND, g_diag_campaign);
}

void diag_campaign_run(collector_info* row, void (*run_cycle)(void* owner), void* owner) {
    campaign_run(row, KIND, &g_diag_campaign, run_cycle, owner);
}

bool diag_campaign_open_record(collector_info* row, record_handle* handle) {
    return campaign_open_record(row, KIND, handle);
}

bool diag_campaign_resume_record(collector_info* row, record_handle* handle) {
    return campaign_resume_record(row, KIND, handle);
}

void diag_campaign_recover_record(collector_info* row, record_handle* handle) {
    campaign_recover_record(row, KIND, handle);
}

void diag_campaign_hand_over_record(collector_info* row, record_handle* handle) {
    campaign_hand_over_record(row, KIND, handle);
}

void diag_campaign_discard_record(collector_info* row, record_handle* handle) {
    campaign_discard_record(row, KIND, handle);
}

void diag_campaign_end() {
    campaign_end(&g_diag_campaign);
}

int diag_monitor_get_campaign_config(collector_info* row) {
    return campaign_wait_active(row, KIND, &g_diag_campaign);
}
