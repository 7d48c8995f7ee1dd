#include "timed_campaign/campaign_record.h"

#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/open_file.h"
#include "base/path.h"
#include "base/text_file.h"
#include "framework/record/record_file.h"
#include "platform/log.h"

// Logged under the tag of the collector.
#define LOGE(...) ((void)__android_log_print(ANDROID_LOG_ERROR, kind.texts.tag, __VA_ARGS__))

namespace {

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

bool open_record(timed_campaign* campaign, const record_init_req& wanted, bool goes_on) {
    record_handle* record = &campaign->record;
    if (goes_on) {
        (void)vexastats_record_reopen(wanted, record);
    } else {
        vexastats_record_close(record);
        record_init_req req = wanted;
        record->file = vexastats_record_init(&req);
        record->undelivered = false;
    }
    const campaign_kind& kind = *campaign->kind;
    if (!record->file) LOGE("failed to open record file for %s collector\n", kind.key);
    return record->file != nullptr;
}

record_init_req record_of(const timed_campaign& campaign) {
    return {.row = campaign.row,
            .dir = campaign.kind->record_dir,
            .prefix = campaign.kind->record_file};
}

}  // namespace

bool campaign_has_consent(const timed_campaign& campaign) {
    return campaign_is_opted_in(*campaign.row) && is_dir_exist(campaign.row->up_dir);
}

bool campaign_open_record(timed_campaign* campaign) {
    const bool keeps = is_kept(*campaign->kind);
    record_init_req req = record_of(*campaign);
    req.discard = keeps ? 0 : 1;
    return open_record(campaign, req, campaign->record.undelivered && !keeps);
}

size_t campaign_append(timed_campaign* campaign, const void* data, size_t len) {
    write_req req{.row = campaign->row, .handle = &campaign->record, .data = data, .len = len};
    return vexastats_write_file(&req);
}

bool campaign_resume_record(timed_campaign* campaign) {
    return open_record(campaign, record_of(*campaign), true);
}

void campaign_recover_record(timed_campaign* campaign) {
    keep_record(*campaign->kind);
    if (!campaign->record.file) (void)campaign_resume_record(campaign);
}

void campaign_hand_over_record(timed_campaign* campaign) {
    write_req req{.row = campaign->row, .handle = &campaign->record, .flags = WRITE_DROP};
    (void)vexastats_write_file(&req);
    if (campaign->record.undelivered) keep_record(*campaign->kind);
}

void campaign_discard_record(timed_campaign* campaign) {
    collector_info* row = campaign->row;
    vexastats_record_close(&campaign->record);
    // A hand-over that failed may have left the row with the finished file's name.
    if (row->rec_fname[0]) (void)unlink(row->rec_fname);
    row->rec_fname[0] = '\0';
    (void)unlink(kind_path(*campaign->kind).text);
}
