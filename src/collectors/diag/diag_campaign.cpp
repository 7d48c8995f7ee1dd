#define LOG_TAG "vexastatsd"

#include "collectors/diag/diag_campaign.h"

#include "collectors/diag/diag_collector.h"

const campaign_kind DIAG_CAMPAIGN = {
    .key = "diag",
    .config_file = "diagstats.cfg",
    .record_dir = "/data/vendor/vexastats/4",
    .record_file = "diagstats.tmp",
    .texts = {.tag = LOG_TAG,
              .request_caller = "diag_monitor_set_cfg_dload_req",
              .title = "Diag",
              .state_prefix = "DIAGSTATS : ",
              .wait_prefix = "DIAGSTATS: ",
              .update = {.tag = LOG_TAG,
                         .caller = "diag_collect_wait_for_config_update",
                         .prefix = "DIAGSTATS: "}},
};

void diag_cfg_handler(FILE* stream, collector_info* row) {
    (void)campaign_read_config(stream, campaign_of(*row));
}

int diag_cfg_update_handler(collector_info* row) {
    return campaign_write_config(*campaign_of(*row));
}

int diag_monitor_get_campaign_config(collector_info* row) {
    return campaign_wait_active(campaign_of(*row));
}
