#define LOG_TAG "vexastatsd"

#include "campaign/campaign_storage.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>

#include "base/path.h"
#include "base/unique_handle.h"
#include "campaign/campaign_table.h"
#include "framework/files/whole_file.h"
#include "platform/log.h"

namespace {

void load_stored_campaign(const char* name, campaign_table* table) {
    char path[PATH_MAX];
    if (!path_join(path, CAMPAIGN_DIR, name)) return;
    ALOGI("%s OPening file %s", "campaign_mgr_load_campaigns_from_storage", path);
    owned_bytes stored;
    if (vexastats_read_file(path, "campaign_mgr_load_campaigns_from_storage", &stored) != 0) return;
    // One that cannot be decoded stays where it is.
    (void)campaign_desciption_entry_decode_from_buffer(stored.bytes.get(), stored.length, table,
                                                       false);
}

}  // namespace

void campaign_storage_make_dir() {
    if (mkdir(CAMPAIGN_DIR, 0700) == 0 || errno == EEXIST) return;
    ALOGE("failed to create %s. err:%d\n", CAMPAIGN_DIR, errno);
}

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
