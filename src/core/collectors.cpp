#include "core/collectors.h"

#include <cstddef>

#include "collectors/alog/alog_collector.h"
#include "collectors/cpu/cpu_collector.h"
#include "collectors/diag/diag_collector.h"
#include "collectors/gpu/gpu_collector.h"
#include "collectors/mccbandlist/mccbandlist_collector.h"
#include "collectors/microdump/microdump_collector.h"
#include "collectors/microdump/microdump_config.h"
#include "collectors/mps/mps_collector.h"
#include "collectors/static/static_collector.h"
#include "framework/config/config.h"
#include "framework/time/clock.h"

// Everything that is equal in all rows is a default of collector_info; a row shows what makes it
// different.
constinit collector_info g_collectors[] = {
    {
        .name = "gpu_collector",
        .up_dir = "/data/vendor/vexa/up/1",
        .down_dir = "/data/vendor/vexa/down/1",
        .cfg_file = "/data/vendor/vexastats/1/.gpustats.cfg",
        .dl_cfg_file = "/data/vendor/vexa/down/1/gpustats.cfg",
        .notify = 1,
        .interval = 1000,  // ms, as its bounds
        .interval_max = 60000,
        .interval_min = 100,
        .threshold = 0,  // per cent, as its bounds
        .threshold_max = 100,
        .threshold_min = 0,
        .hdr = {.client_id = 1, .data_type = DATA_TYPE_STATS, .rec_version = 4},
        .thread_func = gpu_monitor,
        .cfg_update_handler = vexastats_update_cfg,
    },
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
        .name = "static_collector",
        .up_dir = "/data/vendor/vexa/up/3",
        .down_dir = "/data/vendor/vexa/down/3",
        .cfg_file = "/data/vendor/vexastats/3/.staticstats.cfg",
        .hdr = {.client_id = 3, .data_type = DATA_TYPE_STATIC, .rec_version = 1},
        .thread_func = static_monitor,
        .cfg_update_handler = vexastats_update_cfg,
    },
    {
        .name = "diag_collector",
        .up_dir = "/data/vendor/vexa/up/4",
        .down_dir = "/data/vendor/vexa/down/4",
        .cfg_file = "/data/vendor/vexastats/4/.diagstats.cfg",
        .dl_cfg_file = "/data/vendor/vexa/down/4/diagstats.cfg",
        .hdr = {.client_id = 4, .data_type = DATA_TYPE_STATS, .rec_version = 1},
        .thread_func = diag_monitor,
        .cfg_read_handler = diag_cfg_handler,
        .cfg_update_handler = diag_cfg_update_handler,
        .sig_handler = diag_dci_exit,
    },
    {
        .name = "microdump_collector",
        .up_dir = "/data/vendor/vexa/up/5",
        .down_dir = "/data/vendor/vexa/down/5",
        .cfg_file = "/data/vendor/vexastats/5/.microdumpstats.cfg",
        .dl_cfg_file = "/data/vendor/vexa/down/5/microdumpstats.cfg",
        .max_upload_wait_time = days_ms(5),
        .hdr = {.client_id = 5, .data_type = DATA_TYPE_MICRODUMP, .rec_version = 2},
        .thread_func = microdump_monitor,
        .cfg_read_handler = microdump_cfg_read_handler,
        .cfg_update_handler = microdump_cfg_update_handler,
    },
    {
        .name = "mps",
        .up_dir = "/data/vendor/vexa/up/6",
        .down_dir = "/data/vendor/vexa/down/6",
        .cfg_file = "/data/vendor/vexastats/6/mps_collection_logic",
        .hdr = {.client_id = 6, .data_type = DATA_TYPE_MPS, .rec_version = 1},
        .thread_func = mps_main,
        .consent_handler = mps_consent_changed,
    },
    {
        .name = "mccbandlist_updater",
        .up_dir = "/data/vendor/vexa/up/51",
        .down_dir = "/data/vendor/vexa/down/51",
        // It drops no files.
        .hdr = {.header_version = 0,
                .header_len = 0,
                .client_id = 51,
                .data_type = DATA_TYPE_STATS,
                .rec_version = 1,
                .header_attr2 = 0},
        .thread_func = mccbandlist_monitor,
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
