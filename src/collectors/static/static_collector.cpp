#define LOG_TAG "vexastatsd"

#include "collectors/static/static_collector.h"

#include <algorithm>
#include <array>

#include "collectors/static/aost_imsa.h"
#include "collectors/static/static_items.h"
#include "framework/record/record.h"
#include "framework/row/optout.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "platform/log.h"

namespace {

constexpr char RECORD_DIR[] = "/data/vendor/vexastats/3";
constexpr char RECORD_FILE[] = "staticstats.tmp";
constexpr int ROUNDS = 3;
constexpr int64_t ROUND_PAUSE_MS = 5000;

struct static_item {
    const char* title = nullptr;
    bool done = false;
    uint32_t flags = 0;  // of the item's writes
    int (*prepare)(write_req* req) = nullptr;
};

struct static_collector {
    collector_info* row = nullptr;
    record_handle record{};
    char text[STATIC_TEXT_SIZE] = "";
    write_req req{};
    std::array<static_item, 5> items{{
        {.title = "Kernel Config", .prepare = prepare_kernel_config},
        {.title = "Power On/Off Reason", .prepare = prepare_pwr_onoff_reason},
        {.title = "Android Security Patch Level", .prepare = prepare_sec_patch_level},
        {.title = "ORB Version Information", .prepare = prepare_ver_info},
        {.title = "AOST IMSA Service Status", .prepare = prepare_aost_imsa_register},
    }};

    bool stopped() const { return stop_flag_is_raised(row->stop); }
};

// An old record is deleted, never handed over. Returns whether there is a new one.
bool open_record(static_collector* c) {
    record_init_req req{.row = c->row, .dir = RECORD_DIR, .prefix = RECORD_FILE, .discard = 1};
    c->record.file = vexastats_record_init(&req);
    if (!c->record.file) ALOGE("failed to open record file for static collector\n");
    return c->record.file != nullptr;
}

// Up to an open record. Returns whether there is something to do.
bool start(static_collector* c) {
    vexastats_wait_optin(c->row);
    if (!c->row->enabled || !open_record(c)) return false;
    vexastats_wait_dir_ready(c->row->down_dir, &c->row->stop);
    return !c->stopped();
}

// Consent may have gone in any wait since: what it covered is then read once it is back. Returns
// false when the wait for it ended without it.
bool has_consent(const static_collector& c) {
    vexastats_wait_optin(c.row);
    return c.row->enabled;
}

void prepare(static_collector* c, static_item* item) {
    c->req = {.row = c->row,
              .handle = &c->record,
              .data = c->text,
              .len = sizeof c->text,
              .flags = item->flags};
    item->done = item->prepare(&c->req) == 0;
    if (!item->done) ALOGE("failed to get %s\n", item->title);
}

// One try of every item that is not done. Returns false when there was no consent for one.
bool run_round(static_collector* c) {
    for (static_item& item : c->items) {
        if (item.done) continue;
        if (!has_consent(*c)) return false;
        prepare(c, &item);
    }
    return true;
}

bool is_done(const static_collector& c) {
    return std::all_of(c.items.begin(), c.items.end(),
                       [](const static_item& item) { return item.done; });
}

// Returns false when a stop came between two rounds, or while there was no consent.
bool collect_items(static_collector* c) {
    for (int round = 1;; ++round) {
        if (!run_round(c)) return false;
        if (is_done(*c) || round == ROUNDS) return true;
        if (!vexastats_sleep_ms(ROUND_PAUSE_MS, c->row->stop)) return false;
    }
}

void drop_record(static_collector* c) {
    c->req.len = 0;
    c->req.flags = WRITE_DROP;
    const size_t count = vexastats_write_file(&c->req);
    if (count != 0) ALOGE("%s: failed to drop file. cnt:%zu\n", "static_monitor", count);
}

// Reports the DRM level, then the IMS service until the reporter ends.
void report(const static_collector& c) {
    if (c.stopped()) return;
    if (!aost_widevine_get_security_level()) ALOGE("[ERROR] Failed to write Widevine data to file");
    if (aost_imsa_get_registered() && aost_imsa_start() == modem_result::OK) aost_imsa_wait();
}

}  // namespace

int static_monitor(collector_info* row) {
    static_collector collector{.row = row};
    if (start(&collector) && collect_items(&collector)) {
        drop_record(&collector);
        report(collector);
    }
    stop_flag_raise(&row->stop);
    aost_imsa_deinit();  // before the record ends: until then an indication may still be written
    ALOGI("static monitor exit\n");
    return 0;
}
