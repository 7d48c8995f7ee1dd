#define LOG_TAG "vexastatsd"

#include "campaign/cdf_delivery.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/open_file.h"
#include "campaign/campaign_map.h"
#include "campaign/campaign_table.h"
#include "framework/files/delivered_file.h"
#include "framework/files/whole_file.h"
#include "framework/time/wait.h"
#include "framework/time/watch.h"
#include "platform/log.h"

namespace {

constexpr char CALLER[] = "campaign_mgr_main";
constexpr char CDF_NAME[] = "cdf.dat";
constexpr char CDF_FILE[] = "/data/vendor/vexa/down/101/cdf.dat";

// Outside the watched directory, so that taking the file away is no news. The loading of stored
// campaigns passes over the name.
constexpr char DONE_FILE[] = "/data/vendor/vexastats/101/cdf.dat.done";

constexpr off_t CDF_MAX_BYTES = off_t{1} << 20;
constexpr size_t CAMPAIGN_FILE_MAX_BYTES = 16 << 20;  // of one that grows while it is read
constexpr int64_t SETTLE_MS = 1000;  // in which a writer gets through with its file
constexpr int SETTLE_ROUNDS_MAX = 10;

// A file that is moved in is as new as one that is created.
constexpr uint32_t FILE_CAME = IN_CREATE | IN_MOVED_TO;
constexpr uint32_t FILE_WENT = IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t CDF_EVENTS = IN_MODIFY | FILE_WENT;

// What makes the watch useless or incomplete, beside the file's end.
constexpr uint32_t WATCH_ENDED = IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;

// ---- Decoding and taking away

// Decodes the campaign file that `fd` has open and takes over what could be decoded, also when not
// all of it could. `path` is for the log. Returns false when `stop` came first: nothing is taken
// over then, and the file must stay for the next start.
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

// Decodes the campaign file that is there now. Returns its mark as it was before; one that cannot
// be read, or that a stop kept from being decoded, has none.
file_mark decode_cdf(const stop_flag& stop) {
    const unique_fd fd = open_regular(CDF_FILE, CDF_MAX_BYTES);
    if (!fd) {
        ALOGE("Failed Reading CDF File %s!! Panic", CDF_FILE);
        return {};
    }
    const file_mark mark = file_mark_look(fd.get());
    if (!campaign_mgr_decode_and_notify(fd.get(), CDF_FILE, stop)) return {};
    return mark;
}

// Waits until the file stays as it is. Returns false when a stop came first.
bool settle(int fd, const stop_flag& stop) {
    file_mark last;
    for (int round = 0; round < SETTLE_ROUNDS_MAX; ++round) {
        const file_mark now = file_mark_look(fd);
        if (now == last) return true;
        last = now;
        if (!vexastats_sleep_ms(SETTLE_MS, stop)) return false;
    }
    return true;  // somebody who never gets through must not keep the manager
}

// Decodes what lies at DONE_FILE unless it still is what was decoded before, and deletes it. After
// a stop it stays for the next start.
void finish_done_file(const file_mark& decoded, const stop_flag& stop) {
    const unique_fd fd = open_regular(DONE_FILE, CDF_MAX_BYTES);
    if (fd && file_mark_look(fd.get()) != decoded) {
        if (!settle(fd.get(), stop)) return;
        if (!campaign_mgr_decode_and_notify(fd.get(), CDF_FILE, stop)) return;
    }
    (void)unlink(DONE_FILE);
}

// Deletes the campaign file. It is renamed first and looked at again, so that one that was written
// or put in its place since it was decoded is not lost. A directory of that name stays.
void consume_cdf(const file_mark& decoded, const stop_flag& stop) {
    struct stat there = {};
    if (lstat(CDF_FILE, &there) != 0 || S_ISDIR(there.st_mode)) return;
    if (rename(CDF_FILE, DONE_FILE) == 0) {
        finish_done_file(decoded, stop);
    } else if (file_mark_look(CDF_FILE) == decoded) {
        (void)unlink(CDF_FILE);  // there is no place for it
    }
}

// ---- Watching

bool watch_failed() {
    ALOGE("%s: failed inotify_add_watch. err:%d\n", CALLER, errno);
    return false;
}

bool watch_cdf(int notifier) {
    return inotify_add_watch(notifier, CDF_FILE, CDF_EVENTS) >= 0 || watch_failed();
}

// Returns false, logged, when not all that is there can be watched.
bool watch_directory_and_file(cdf_watch* watch, const stop_flag& stop) {
    const int notifier = watch->notifier.get();
    watch->dir = inotify_add_watch(notifier, CDF_DIR, FILE_CAME | WATCH_DIR_GONE | IN_ONLYDIR);
    if (watch->dir < 0) return watch_failed();
    struct stat file = {};
    if (lstat(CDF_FILE, &file) != 0) return true;
    if (!S_ISREG(file.st_mode)) {
        ALOGE("%s: File not a regular file \n", CALLER);
        return false;
    }
    if (!watch_cdf(notifier)) return false;
    ALOGI("Reading file right away %s\n", CDF_FILE);
    (void)decode_cdf(stop);
    return true;
}

cdf_news note_created(const cdf_watch& watch, const inotify_event& event, cdf_news so_far) {
    const char* name = event.len > 0 ? event.name : "";
    ALOGI("Full file name %s\n", CDF_FILE);
    if (strcmp(name, CDF_NAME) != 0) {
        ALOGI("Created %s %s %d\n", name, CDF_NAME, static_cast<int>(event.len));
        return so_far;
    }
    ALOGI("CDF File Created waiting? %d\n", so_far == cdf_news::PROCESS ? 1 : 0);
    (void)watch_cdf(watch.notifier.get());
    return cdf_news::PROCESS;
}

cdf_news note_event(const cdf_watch& watch, const inotify_event& event, cdf_news so_far) {
    ALOGI("Mask %d Len %d\n", static_cast<int>(event.mask), static_cast<int>(event.len));
    ALOGI("Masks 0x%x 0x%x 0x%x 0x%x 0x%x\n", event.mask & IN_CREATE, event.mask & IN_MODIFY,
          event.mask & IN_DELETE, event.mask & IN_DELETE_SELF, event.mask & IN_MOVE_SELF);
    if (event.mask & (FILE_WENT | WATCH_ENDED)) return cdf_news::WATCH_OVER;
    if (event.mask & FILE_CAME) return note_created(watch, event, so_far);
    if (event.mask & IN_MODIFY) return cdf_news::PROCESS;
    if (event.len > 0) {
        ALOGI("File Operation %d on %s Not handled\n", static_cast<int>(event.mask), event.name);
    }
    return so_far;
}

}  // namespace

void cdf_finish_interrupted(const stop_flag& stop) {
    finish_done_file({}, stop);
}

bool cdf_watch_begin(cdf_watch* watch, const stop_flag& stop) {
    *watch = {};
    watch->notifier.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!watch->notifier) {
        ALOGE("%s: failed inotify_init. err:%d\n", CALLER, errno);
        return false;
    }
    watch_way_to(watch->notifier.get(), CDF_DIR, &watch->way);
    watch->complete = watch_directory_and_file(watch, stop);
    return true;
}

cdf_news cdf_read_events(cdf_watch* watch, const stop_flag& stop) {
    watch_buffer events;
    if (!watch_read(watch->notifier.get(), &events, stop)) return cdf_news::WATCH_OVER;
    cdf_news news = cdf_news::NONE;
    bool of_the_file = false;
    watch_for_each(events, [&](const inotify_event& event) {
        if (watch_way_lost(watch->way, event)) {
            news = cdf_news::WATCH_OVER;
            return;
        }
        // Only the directory's events and the file's, which have no name, are worth a word.
        const bool of_an_ancestor = event.len > 0 && event.wd != watch->dir && event.wd >= 0;
        if (of_an_ancestor) return;
        if (!of_the_file) ALOGI("%s:CDF file pollin\n", CALLER);
        of_the_file = true;
        const cdf_news noted = note_event(*watch, event, news);
        if (news != cdf_news::WATCH_OVER) news = noted;
    });
    return news;
}

void cdf_process(const stop_flag& stop) {
    if (!vexastats_sleep_ms(SETTLE_MS, stop)) return;
    ALOGI("Full file name %s\n", CDF_FILE);
    consume_cdf(decode_cdf(stop), stop);
}
