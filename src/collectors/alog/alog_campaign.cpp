#define LOG_TAG "vexastatsd-alog"

#include "collectors/alog/alog_campaign.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <new>

#include "collectors/alog/alog_collector.h"
#include "framework/clock.h"
#include "framework/config.h"
#include "framework/config_update.h"
#include "framework/files.h"
#include "platform/log.h"

constinit timed_campaign g_alog_campaign;

namespace {

constexpr char KIND[] = "alog";

config_file_mark g_seen;  // the downloaded file at the last load

// The next line as fgets cuts it, or nothing at the end of the file.
bool read_line(FILE* stream, char (&line)[CAMPAIGN_LINE_SIZE]) {
    return fgets(line, sizeof line, stream) != nullptr;
}

bool read_value_line(FILE* stream, char (&line)[CAMPAIGN_LINE_SIZE]) {
    while (read_line(stream, line)) {
        if (line[0] != '#' && line[0] != '\n') return true;
    }
    return false;
}

// Takes the masks, or none when there is no memory for them. Returns false then, logged.
bool take_masks(const char* text, const campaign_line& line) {
    timed_campaign& campaign = g_alog_campaign;
    campaign.mask_count = line.mask_count;
    campaign.masks.reset(new (std::nothrow) uint32_t[static_cast<size_t>(line.mask_count)]());
    if (!campaign.masks) {
        ALOGE("%s: malloc failed", "alog_cfg_handler");
        return false;
    }
    const int moved_on = campaign_masks_parse(text, KIND, line, campaign.masks.get());
    ALOGI("Ret %d Client Id %d Size %d Campaign ID %d Duration %d Seconds NumAlogMasks %d\n",
          moved_on, static_cast<int>(line.client_id), line.size_bytes, line.campaign_id,
          line.duration_s, line.mask_count);
    for (int32_t i = 0; i < line.mask_count; ++i) {
        ALOGI("Alog Mask[%d]=0x%x\n", i, campaign.masks[i]);
    }
    return true;
}

void log_stop_time() {
    ALOGI("alog_collect_stop_time %lu", static_cast<unsigned long>(g_alog_campaign.stop_time_s));
}

// Whether the line behind the values, or the campaign in memory where there is none, says that a
// campaign runs already. A line that says anything else ends it.
bool goes_on_with_active(FILE* stream) {
    timed_campaign& campaign = g_alog_campaign;
    char line[CAMPAIGN_LINE_SIZE];
    if (read_line(stream, line) &&
        !campaign_state_parse(line, &campaign.id, &campaign.stop_time_s)) {
        alog_campaign_end();
    }
    if (campaign.id != NO_CAMPAIGN) return true;
    ALOGI("alog_active_campaign_id %d", campaign.id);
    return false;
}

void start_campaign(const campaign_line& line) {
    g_alog_campaign.stop_time_s = static_cast<uint64_t>(line.duration_s) + campaign_now_s();
    g_alog_campaign.id = line.campaign_id;
    g_alog_campaign.duration_s = line.duration_s;
}

// Loads the parameters and remembers which downloaded file was there to be loaded.
int load_params(collector_info* row) {
    g_seen = config_file_look(row->dl_cfg_file);
    return vexastats_init_params(row);
}

bool campaign_is_over() {
    return campaign_now_s() > g_alog_campaign.stop_time_s;
}

}  // namespace

void alog_cfg_handler(FILE* stream, collector_info* row) {
    if (!stream) return;
    ALOGI("%s: \n", "alog_cfg_handler");

    char text[CAMPAIGN_LINE_SIZE];
    campaign_line line;
    if (!read_value_line(stream, text) || !campaign_line_parse(text, KIND, &line) ||
        line.client_id != row->hdr.client_id) {
        ALOGE("invalid %d config file. re-create. err:%d\n", static_cast<int>(row->hdr.client_id),
              errno);
        return;
    }
    if (line.campaign_id == g_alog_campaign.id) {
        ALOGI("already active campaign id %d \n", line.campaign_id);
        return;
    }
    row->size = std::clamp(line.size_bytes, 0, CAMPAIGN_SIZE_MAX_BYTES);
    campaign_line_clamp(&line);
    if (!take_masks(text, line)) return;
    if (!goes_on_with_active(stream)) start_campaign(line);
    log_stop_time();
}

int alog_cfg_update_handler(collector_info* row) {
    ALOGI("%s: cfg_fname %s\n", __func__, row->cfg_file);
    char text[CAMPAIGN_FILE_SIZE];
    const size_t len =
        campaign_file_format(text, row->name, KIND, row->hdr.client_id, row->size, g_alog_campaign);
    const int result = vexastats_replace_file(row->cfg_file, text, len);
    if (result == 0) return 0;
    ALOGE("failed to open %s cfg. err:%d\n", row->cfg_file, -result);
    return -EINVAL;
}

void alog_campaign_reset() {
    alog_campaign_end();
    g_alog_campaign.mask_count = 0;
    g_alog_campaign.masks.reset();
    g_seen = {};
}

void alog_campaign_end() {
    g_alog_campaign.id = NO_CAMPAIGN;
    g_alog_campaign.stop_time_s = 0;
}

int alog_monitor_get_campaign_config(collector_info* row) {
    const int result = load_params(row);
    if (result != 0) {
        ALOGE("alog init_params failed. use default value\n");
        return result;
    }
    ALOGI("Checking for an active campaign");
    while (campaign_is_over()) {
        ALOGI("Waiting on %s", row->dl_cfg_file);
        alog_collect_wait_for_config_update(row);
        if (stop_flag_is_raised(row->stop)) return -EINTR;
        if (load_params(row) != 0) break;
    }
    ALOGI("active campaign: curr_time: %lu Stop Time %lu Campaign ID %d",
          static_cast<unsigned long>(vexastats_real_time_ms() / 1000),
          static_cast<unsigned long>(g_alog_campaign.stop_time_s), g_alog_campaign.id);
    return 0;
}

void alog_collect_wait_for_config_update(collector_info* row) {
    ALOGI("%s: \n", __func__);
    vexastats_wait_config_update(row, g_seen, {.tag = LOG_TAG, .caller = __func__, .prefix = " "});
}
