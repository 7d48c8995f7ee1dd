#include "timed_campaign/campaign_config.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "base/open_file.h"
#include "base/path.h"
#include "base/replace_file.h"
#include "base/text_file.h"
#include "framework/config/config.h"
#include "framework/config/config_line.h"
#include "framework/config/dload.h"
#include "framework/record/record_file.h"
#include "framework/row/optout.h"
#include "framework/time/clock.h"
#include "framework/time/wait_dir.h"
#include "platform/log.h"

// Logged under the tag of the collector.
#define LOGI(...) ((void)__android_log_print(ANDROID_LOG_INFO, kind.tag, __VA_ARGS__))
#define LOGE(...) ((void)__android_log_print(ANDROID_LOG_ERROR, kind.tag, __VA_ARGS__))

namespace {

// The next line as fgets cuts it, or nothing at the end of the file.
bool read_line(FILE* stream, char (&line)[CAMPAIGN_LINE_SIZE]) {
    return fgets(line, sizeof line, stream) != nullptr;
}

// Takes the masks, or none when there is no memory for them. Returns false then.
bool take_masks(const char* text, const campaign_kind& kind, const campaign_line& line,
                timed_campaign* campaign) {
    campaign->mask_count = line.mask_count;
    campaign->masks.reset(new (std::nothrow) uint32_t[static_cast<size_t>(line.mask_count)]());
    if (!campaign->masks) return false;
    const int moved_on = campaign_masks_parse(text, kind.key, line, campaign->masks.get());
    LOGI("Ret %d Client Id %d Size %d Campaign ID %d Duration %d Seconds Num%sMasks %d\n", moved_on,
         static_cast<int>(line.client_id), line.size_bytes, line.campaign_id, line.duration_s,
         kind.title, line.mask_count);
    for (int32_t i = 0; i < line.mask_count; ++i) {
        LOGI("%s Mask[%d]=0x%x\n", kind.title, i, campaign->masks[i]);
    }
    return true;
}

// Whether the line behind the values, or the campaign in memory where there is none, says that a
// campaign runs already. A line that says anything else ends it.
bool goes_on_with_active(FILE* stream, timed_campaign* campaign) {
    char line[CAMPAIGN_LINE_SIZE];
    if (read_line(stream, line) &&
        !campaign_state_parse(line, &campaign->id, &campaign->stop_time_s)) {
        campaign_end(campaign);
    }
    return campaign->id != NO_CAMPAIGN;
}

void start_campaign(const campaign_line& line, timed_campaign* campaign) {
    campaign->stop_time_s = static_cast<uint64_t>(line.duration_s) + campaign_now_s();
    campaign->id = line.campaign_id;
    campaign->duration_s = line.duration_s;
}

// Loads the parameters and remembers which downloaded file was there to be loaded.
int load_params(collector_info* row, timed_campaign* campaign) {
    campaign->seen = file_mark_look(row->dl_cfg_file);
    return vexastats_init_params(row);
}

// Returns 0 or the failure, logged.
int request_config(const collector_info& row, const campaign_kind& kind) {
    const dload_req request{.client_id = static_cast<int32_t>(row.hdr.client_id),
                            .version = "1.0",
                            .key = kind.config_file,
                            .request_type = 1,
                            .request_timer = 31536000,
                            .conn_type = 1,
                            .conn_timer = 360};
    const int result = vexastats_dload_req(&request);
    if (result != 0) LOGE("%s: dload request failed\n", kind.request_caller);
    return result;
}

bool is_over(const timed_campaign& campaign) {
    return campaign_now_s() > campaign.stop_time_s;
}

// Returns whether the row has something to do.
bool begin(collector_info* row, const campaign_kind& kind, timed_campaign* campaign) {
    campaign_reset(campaign);
    vexastats_wait_dir_ready(row->down_dir, &row->stop);
    if (request_config(*row, kind) != 0) {
        if (stop_flag_is_raised(row->stop)) return false;
        campaign_wait_update(row, kind, *campaign);
    }
    // Also after a failed request: nothing is collected without consent.
    vexastats_wait_optin(row);
    return row->enabled;
}

struct kind_path {
    char text[PATH_MAX];
    explicit kind_path(const campaign_kind& kind) {
        (void)path_join(text, kind.record_dir, kind.record_file);
    }
};

// A record that must not be discarded may be executed by its owner. Such a mark goes with the file,
// stays when the daemon is killed, and needs no room on a disk that is full.
constexpr mode_t KEPT_MARK = S_IXUSR;

bool is_kept(const campaign_kind& kind) {
    struct stat status = {};
    return lstat(kind_path(kind).text, &status) == 0 && (status.st_mode & KEPT_MARK);
}

void keep_record(const campaign_kind& kind) {
    const unique_fd fd = open_regular(kind_path(kind).text, RECORD_FILE_MAX);
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0) return;  // its finished file waits instead
    if (fchmod(fd.get(), (status.st_mode & 0777) | KEPT_MARK) != 0)
        LOGE("failed to keep record. err:%d\n", errno);
}

bool open_record(const record_init_req& wanted, const campaign_kind& kind, record_handle* handle,
                 bool goes_on) {
    if (goes_on) {
        (void)vexastats_record_reopen(wanted, handle);
    } else {
        vexastats_record_close(handle);
        record_init_req req = wanted;
        handle->file = vexastats_record_init(&req);
        handle->undelivered = false;
    }
    if (!handle->file) LOGE("failed to open record file for %s collector\n", kind.key);
    return handle->file != nullptr;
}

}  // namespace

campaign_change campaign_read_config(FILE* stream, collector_info* row, const campaign_kind& kind,
                                     timed_campaign* campaign) {
    if (!stream) return campaign_change::REFUSED;
    char text[CAMPAIGN_LINE_SIZE];
    campaign_line line;
    if (!config_read_value_line(stream, text) || !campaign_line_parse(text, kind.key, &line) ||
        line.client_id != row->hdr.client_id) {
        LOGE("invalid %d config file. re-create. err:%d\n", static_cast<int>(row->hdr.client_id),
             errno);
        return campaign_change::REFUSED;
    }
    if (line.campaign_id == campaign->id) return campaign_change::ALREADY_ACTIVE;
    row->size = std::clamp(line.size_bytes, 0, CAMPAIGN_SIZE_MAX_BYTES);
    campaign_line_clamp(&line);
    if (!take_masks(text, kind, line, campaign)) return campaign_change::NO_MEMORY;
    if (goes_on_with_active(stream, campaign)) return campaign_change::GOES_ON;
    start_campaign(line, campaign);
    return campaign_change::STARTED;
}

int campaign_write_config(const collector_info& row, const campaign_kind& kind,
                          const timed_campaign& campaign) {
    char text[CAMPAIGN_FILE_SIZE];
    const size_t len =
        campaign_file_format(text, row.name, kind.key, row.hdr.client_id, row.size, campaign);
    const int result = vexastats_replace_file(row.cfg_file, text, len);
    if (result == 0) return 0;
    LOGE("failed to open %s cfg. err:%d\n", row.cfg_file, -result);
    return -EINVAL;
}

void campaign_run(collector_info* row, const campaign_kind& kind, timed_campaign* campaign,
                  void (*run_cycle)(void* owner), void* owner) {
    const bool has_work = begin(row, kind, campaign);
    while (has_work && !stop_flag_is_raised(row->stop)) {
        run_cycle(owner);
        if (stop_flag_is_raised(row->stop)) break;
        campaign_wait_update(row, kind, *campaign);
    }
    stop_flag_raise(&row->stop);
}

bool campaign_has_consent(const collector_info& row) {
    return campaign_is_opted_in(row) && is_dir_exist(row.up_dir);
}

bool campaign_open_record(collector_info* row, const campaign_kind& kind, record_handle* handle) {
    const bool keeps = is_kept(kind);
    const record_init_req req{.row = row,
                              .dir = kind.record_dir,
                              .prefix = kind.record_file,
                              .resume = 0,
                              .discard = keeps ? uint8_t{0} : uint8_t{1}};
    return open_record(req, kind, handle, handle->undelivered && !keeps);
}

void campaign_recover_record(collector_info* row, const campaign_kind& kind,
                             record_handle* handle) {
    keep_record(kind);
    if (!handle->file) (void)campaign_resume_record(row, kind, handle);
}

void campaign_hand_over_record(collector_info* row, const campaign_kind& kind,
                               record_handle* handle) {
    write_req req{.row = row, .handle = handle, .flags = WRITE_DROP};
    (void)vexastats_write_file(&req);
    if (handle->undelivered) keep_record(kind);
}

bool campaign_resume_record(collector_info* row, const campaign_kind& kind, record_handle* handle) {
    const record_init_req req{.row = row, .dir = kind.record_dir, .prefix = kind.record_file};
    return open_record(req, kind, handle, true);
}

void campaign_discard_record(collector_info* row, const campaign_kind& kind,
                             record_handle* handle) {
    vexastats_record_close(handle);
    // A hand-over that failed may have left the row with the finished file's name.
    if (row->rec_fname[0]) (void)unlink(row->rec_fname);
    row->rec_fname[0] = '\0';
    (void)unlink(kind_path(kind).text);
}

void campaign_end(timed_campaign* campaign) {
    campaign->id = NO_CAMPAIGN;
    campaign->stop_time_s = 0;
}

void campaign_reset(timed_campaign* campaign) {
    campaign_end(campaign);
    campaign->mask_count = 0;
    campaign->masks.reset();
    campaign->seen = {};
}

int campaign_wait_active(collector_info* row, const campaign_kind& kind, timed_campaign* campaign) {
    const int result = load_params(row, campaign);
    if (result != 0) {
        LOGE("%s init_params failed. use default value\n", kind.loader);
        return result;
    }
    LOGI("%sChecking for an active campaign", kind.state_prefix);
    while (is_over(*campaign)) {
        LOGI("%sWaiting on %s", kind.wait_prefix, row->dl_cfg_file);
        campaign_wait_update(row, kind, *campaign);
        if (stop_flag_is_raised(row->stop)) return -EINTR;
        if (load_params(row, campaign) != 0) break;
    }
    LOGI("%sactive campaign: curr_time: %lu Stop Time %lu Campaign ID %d", kind.state_prefix,
         static_cast<unsigned long>(vexastats_real_time_ms() / 1000),
         static_cast<unsigned long>(campaign->stop_time_s), campaign->id);
    return 0;
}

void campaign_wait_update(collector_info* row, const campaign_kind& kind,
                          const timed_campaign& campaign) {
    if (kind.logs_update_wait) LOGI("%s: \n", kind.update.caller);
    vexastats_wait_config_update(row, campaign.seen, kind.update);
}
