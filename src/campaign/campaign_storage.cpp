#define LOG_TAG "vexastatsd"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "base/unique_handle.h"
#include "campaign/campaign_map.h"
#include "campaign/campaign_state.h"
#include "framework/files.h"
#include "framework/wait.h"
#include "platform/log.h"

namespace {

// Far more than seven modules' campaigns can fill.
constexpr size_t CAMPAIGN_FILE_MAX_BYTES = 16 << 20;

void load_stored_campaign(const char* name, campaign_table* table) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/%s", CAMPAIGN_DIR, name);
    ALOGI("%s OPening file %s", "campaign_mgr_load_campaigns_from_storage", path);
    owned_bytes stored;
    if (vexastats_read_file(path, "campaign_mgr_load_campaigns_from_storage", &stored) != 0) return;
    // One that cannot be decoded stays where it is.
    (void)campaign_desciption_entry_decode_from_buffer(stored.bytes.get(), stored.length, table,
                                                       false);
}

}  // namespace

void campaign_mgr_load_campaigns_from_storage() {
    const unique_dir dir(opendir(CAMPAIGN_DIR));
    if (!dir) {
        ALOGE("Error : Failed to open RFS directory - %s\n", strerror(errno));
        return;
    }
    campaign_table stored;
    while (const dirent* entry = readdir(dir.get())) {
        if (strstr(entry->d_name, ".camp")) {
            load_stored_campaign(entry->d_name, &stored);
        } else {
            ALOGI("Not a recongnizable campaign file %s", entry->d_name);
        }
    }
    updateCampaignTableAndAct(stored);
}

bool campaign_mgr_decode_and_notify(int fd, const char* path, const stop_flag& stop) {
    owned_bytes file;
    if (!vexastats_read_whole(fd, path, __func__, CAMPAIGN_FILE_MAX_BYTES, &file)) return true;
    ALOGI("Successful Read %d of %d bytes from %s", static_cast<int>(file.length),
          static_cast<int>(file.length), path);
    const uint8_t* map = nullptr;
    size_t map_length = 0;
    if (!campaign_file_map(__func__, file.bytes.get(), file.length, &map, &map_length)) return true;
    campaign_table decoded;
    const bool is_whole = campaignDecode(map, map_length, &decoded, true, &stop);
    if (!is_whole && !vexastats_sleep_ms(0, stop)) return false;
    // Also after a failure: what came before it counts.
    updateCampaignTableAndAct(decoded);
    return true;
}
