// Records of a row of their own on the scripted platform, for the tests of records and hand-overs.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "framework/config/config.h"
#include "framework/config/dload.h"
#include "framework/record/record.h"
#include "platform_test.h"
#include "support/dropbox.h"
#include "support/files.h"
#include "support/log.h"

inline const std::string OLD_LINE = "Version=3 Realtime=1600000000000 Uptime=77 Timezone=60\n";
inline const std::string NEW_LINE = "Version=3 Realtime=1700000000000 Uptime=5000 Timezone=0\n";

struct record_phone {
    static constexpr char OWN[] = "/data/vendor/vexastats/7";
    static constexpr char UP[] = "/data/vendor/vexa/up/7";
    static constexpr char DOWN[] = "/data/vendor/vexa/down/7";

    record_phone() { reset(); }
    ~record_phone() { vexastats_record_close(&handle); }
    record_phone(const record_phone&) = delete;
    record_phone& operator=(const record_phone&) = delete;

    // Empty directories, and the row and the platform as at first.
    void reset() {
        vexastats_record_close(&handle);
        for (const char* dir : {OWN, UP, DOWN}) {
            std::filesystem::remove_all(dir);
            std::filesystem::create_directories(dir);
        }
        platform_test_reset();
        platform_test_set_boot_ms(5000);
        row.size = 65536;
        row.compress_ratio = 200;
        row.up_dir = UP;
        log_seen = 0;
    }

    bool begin(bool resume = false, bool discard = false) {
        vexastats_record_close(&handle);
        record_init_req req{.row = &row,
                            .dir = OWN,
                            .prefix = "teststats.tmp",
                            .resume = resume,
                            .discard = discard};
        handle.file = vexastats_record_init(&req);
        return handle.file != nullptr;
    }
    size_t append(std::string_view data, uint32_t flags = 0) {
        write_req req{.row = &row,
                      .handle = &handle,
                      .data = data.data(),
                      .len = data.size(),
                      .flags = flags};
        const size_t count = vexastats_write_file(&req);
        rolled_over = req.rolled_over != 0;
        return count;
    }
    size_t drop(uint32_t flags = WRITE_DROP) { return append({nullptr, 0}, flags); }

    static int request() {
        const dload_req req{.client_id = 7,
                            .version = "1.1",
                            .key = "x.cfg",
                            .request_type = 1,
                            .request_timer = 2,
                            .conn_type = 3,
                            .conn_timer = 4};
        return vexastats_dload_req(&req);
    }

    static std::filesystem::path own(const std::string& name) {
        return std::filesystem::path(OWN) / name;
    }
    static std::filesystem::path up(const std::string& name) {
        return std::filesystem::path(UP) / name;
    }
    static std::string record() { return file_text(own("teststats.tmp")); }
    static void write_record(const std::string& text) {
        write_text_file(own("teststats.tmp"), text);
    }
    static std::string dropbox() { return dropbox_text(UP); }
    std::string log() { return log_lines(&log_seen); }

    collector_info row{
        .name = "test_collector",
        .up_dir = UP,
        .down_dir = DOWN,
        .cfg_file = "/data/vendor/vexastats/7/.teststats.cfg",
        .dl_cfg_file = "/data/vendor/vexa/down/7/teststats.cfg",
        .interval_max = 60000,
        .hdr = {.client_id = 7, .rec_version = 3},
        .cfg_update_handler = vexastats_update_cfg,
    };
    record_handle handle;
    bool rolled_over = false;  // by the last append
    size_t log_seen = 0;
};
