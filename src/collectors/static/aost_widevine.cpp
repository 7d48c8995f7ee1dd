#define LOG_TAG "vexastatsd"

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include "base/open_file.h"
#include "base/text_file.h"
#include "base/unique_handle.h"
#include "collectors/static/aost_imsa.h"
#include "collectors/static/aost_reporter.h"
#include "framework/files/delivered_file.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

constexpr char NAME[] = "wvstats";
constexpr char LEVEL_DIR[] = "/data/vendor/vexa/shared/3";
constexpr char LEVEL_NAME[] = "wvstats.tmp";
constexpr char LEVEL_FILE[] = "/data/vendor/vexa/shared/3/wvstats.tmp";
constexpr int TRIES = 120;
constexpr int64_t TRY_PAUSE_MS = 1000;
constexpr size_t LEVEL_SIZE = 16;

void discard_level() {
    ALOGI("opt-out status, skip writing file\n");
    if (unlink(LEVEL_FILE) != 0)
        ALOGI("File is not found or failed to remove %s.tmp err=%d\n", NAME, errno);
}

bool aost_widevine_write_security_level(collector_info* row) REQUIRES(g_aost.data_lock) {
    if (row->enabled) return aost_append_status_text(row, "");
    discard_level();
    return false;
}

// Reads the first line of the level file, its newline included, and deletes the file. Returns
// whether there was one that is not empty. Without consent the file goes unread.
bool read_level(const collector_info& row, int attempt, char (&level)[LEVEL_SIZE]) {
    delivered_file_restore(LEVEL_FILE);
    const unique_file file = stream_of(open_outsider(LEVEL_DIR, LEVEL_NAME, SMALL_FILE_MAX), "re");
    if (!file) {
        ALOGI("waiting for wvstats, retry=%d\n", attempt);
        return false;
    }
    if (!row.enabled) {
        discard_level();
        return false;
    }
    const file_mark read = file_mark_look(fileno(file.get()));
    if (!fgets(level, sizeof level, file.get())) {
        ALOGE("Failed in fgets(), errno=%d\n", errno);
        return false;
    }
    ALOGI("Found wvstats.tmp file, prop=%s", level);
    const int result = delivered_file_remove(LEVEL_FILE, read);
    if (result != 0) ALOGE("[ERROR] Failed to remove %s err=%d\n", LEVEL_FILE, -result);
    return level[0] != '\0' && level[0] != '\n';
}

bool wait_for_level(collector_info* row, char (&level)[LEVEL_SIZE]) {
    for (int attempt = 1; attempt <= TRIES; ++attempt) {
        if (read_level(*row, attempt, level)) return true;
        if (!aost_sleep_ms(row, TRY_PAUSE_MS)) return false;
    }
    ALOGE("[ERROR] Failed to open %s.tmp after %d retries\n", NAME, TRIES);
    return false;
}

}  // namespace

bool aost_widevine_get_security_level() {
    collector_info* row = g_aost.row;
    if (!row) return false;
    {
        const vexa_lock held(g_aost.data_lock);
        g_aost.has_record = true;
        snprintf(g_aost.status_text, sizeof g_aost.status_text, "widevine security level:\n");
        if (!aost_widevine_write_security_level(row)) {
            ALOGI("Failed to write data to file");
            return false;
        }
    }
    char level[LEVEL_SIZE];
    if (!wait_for_level(row, level)) return false;

    const vexa_lock held(g_aost.data_lock);
    snprintf(g_aost.status_text, sizeof g_aost.status_text, "- %ld\n- %s\n",
             static_cast<long>(vexastats_uptime_ms()), level);
    if (aost_widevine_write_security_level(row)) return true;
    ALOGE("[ERROR] Failed to write data to file");
    return false;
}
