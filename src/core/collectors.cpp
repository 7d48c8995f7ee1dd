#include "core/collectors.h"

#include <cstddef>

#include "collectors/alog/alog_collector.h"
#include "collectors/cpu/cpu_collector.h"
#include "framework/config.h"

// Everything that is equal in all rows is a default of collector_info; a row shows what makes it
// different.
constinit collector_info g_collectors[] = {
    {
        .name = "cpu_collector",
        .up_dir = "/data/vendor/vexa/up/2",
        .down_dir = "/data/vendor/vexa/down/2",
        .cfg_file = "/data/vendor/vexastats/2/.cpustats.cfg",
        .dl_cfg_file = "/data/vendor/vexa/down/2/cpustats.cfg",
        .interval = 60000,  // ms, as its bounds
        .interval_max = 60000,
        .interval_min = 100,
        .threshold = 300000,  // kHz, as its bounds
        .threshold_max = 1900800,
        .threshold_min = 300000,
        .hdr = {.client_id = 2, .data_type = DATA_TYPE_STATS, .rec_version = 6},
        .thread_func = cpu_monitor,
        .cfg_update_handler = vexastats_update_cfg,
    },
    {
        .name = "alog_collector",
        .up_dir = "/data/vendor/vexa/up/501",
        .down_dir = "/data/vendor/vexa/down/501",
        .cfg_file = "/data/vendor/vexastats/501/.alogstats.cfg",
        .dl_cfg_file = "/data/vendor/vexa/down/501/alogstats.cfg",
        .hdr = {.client_id = 501, .data_type = DATA_TYPE_STATS, .rec_version = 1},
        .thread_func = alog_monitor,
        .cfg_read_handler = alog_cfg_handler,
        .cfg_update_handler = alog_cfg_update_handler,
    },
};

const int32_t g_collector_count = sizeof g_collectors / sizeof g_collectors[0];
