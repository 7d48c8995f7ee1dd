#define LOG_TAG "vexastatsd"

#include <stdio.h>
#include <string.h>

#include "collectors/static/aost_reporter.h"
#include "framework/record/record.h"
#include "platform/log.h"

namespace {

constexpr char RECORD_DIR[] = "/data/vendor/vexastats/3";
constexpr char RECORD_FILE[] = "aoststats.tmp";
constexpr size_t TEXT_SIZE = 128;

// A record that an earlier run left is continued.
bool open_record(collector_info* row) REQUIRES(g_aost.data_lock) {
    const record_init_req req{.row = row, .dir = RECORD_DIR, .prefix = RECORD_FILE};
    if (vexastats_record_reopen(req, g_aost.record)) return true;
    ALOGE("[ERROR] vexastats_record_init() failed");
    return false;
}

bool write_record(collector_info* row, const char* text, uint32_t flags)
    REQUIRES(g_aost.data_lock) {
    const size_t len = text ? strlen(text) : 0;
    write_req req{.row = row, .handle = g_aost.record, .data = text, .len = len, .flags = flags};
    const size_t count = vexastats_write_file(&req);
    if (count == len) return true;
    ALOGE("[ERROR] Failed to write file, cnt=%ld, len=%ld", static_cast<long>(count),
          static_cast<long>(len));
    return false;
}

// A failed hand-over counts as one that succeeded, for both give 0 bytes: deliberate. The record is
// then still there and is continued.
bool drop_record(collector_info* row) REQUIRES(g_aost.data_lock) {
    if (!write_record(row, nullptr, WRITE_DROP)) return false;
    g_aost.stored = false;
    return true;
}

}  // namespace

bool aost_is_ending(const collector_info& row) {
    return stop_flag_is_raised(row.stop) || row.terminate;
}

bool aost_append_status_text(collector_info* row, const char* heading) {
    char text[TEXT_SIZE];
    if (!g_aost.stored && !open_record(row)) return false;
    snprintf(text, sizeof text, "%s%s", !g_aost.stored && heading ? heading : "",
             g_aost.status_text);
    if (!write_record(row, text, 0)) return false;
    ALOGI("vexastats_write_file() succeeded");
    g_aost.stored = true;
    return true;
}

bool aost_imsa_write_service_status_change(bool drop_now) {
    ALOGI("%s, stored=%d, drop_now=%d", __func__, g_aost.stored, drop_now);
    collector_info* row = g_aost.row;
    if (!row || aost_is_ending(*row)) {
        ALOGD("exit thread");
        return false;
    }
    // An indication that comes too early finds the static record still open. Nothing is lost: the
    // whole state is asked for and written once that has been handed over.
    if (!g_aost.registered || !g_aost.has_record) {
        ALOGD("ind messages are not registered, skip writing file");
        return true;
    }
    if (!row->enabled) {
        ALOGD("opt-out status, skip writing file");
        return true;
    }
    return drop_now ? drop_record(row) : aost_append_status_text(row, "ims service status:\n");
}
