#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/mccbandlist_dload.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/open_file.h"
#include "base/path.h"
#include "base/text_cursor.h"
#include "base/unique_handle.h"
#include "framework/row/debug_build.h"
#include "platform/log.h"

namespace {

constexpr char LIST_NAME[] = "mccbandlist.bin";
constexpr int STATUS_OK = 200;
constexpr int32_t TEST_REQUEST_TIMER = 1740;
constexpr int32_t TEST_CONN_TIMER_S = 300;

// "%d-%s-%s"
struct request_id {
    char text[300];

    explicit request_id(const mccbandlist_request& request) {
        snprintf(text, sizeof text, "%d-%s-%s", request.fields.client_id, request.fields.version,
                 request.key);
    }
};

// Others may write to the directory, too. Of so many names of each sort a look says what they are;
// the files of the request's course are served beyond that as well. And so many names it reads.
constexpr unsigned NAMES_SAID_MAX = 32;
constexpr unsigned NAMES_READ_MAX = 65536;

// What a look into the directory has found.
struct dload_look {
    const char* directory = nullptr;
    int dir_fd = -1;
    const char* function = nullptr;  // in whose name it logs
    unsigned names = 0;
    unsigned of_course = 0;  // files of the request's course among them
    unsigned others = 0;     // and the rest, as far as they were counted
    bool has_list = false;
    bool has_status = false;
    int status = 0;
    mccbandlist_download* download = nullptr;
};

bool is_regular_file(int dir_fd, const char* name) {
    struct stat status = {};
    return fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
}

struct entry_path {
    char text[PATH_MAX];
    entry_path(const char* directory, const char* name) { (void)path_join(text, directory, name); }
};

void handle_status_file(const char* name, const char* path, bool is_said, dload_look* look) {
    look->has_status = true;
    look->status = mccbandlist_status_number(name);
    const bool is_ok = look->status == STATUS_OK;
    if (is_ok) (void)mccbandlist_scan_key_ts(name, &look->download->key_ts);
    const int removed = unlinkat(look->dir_fd, name, 0);
    if (!is_said) return;
    if (is_ok) ALOGI("key ts: %lu\n", static_cast<unsigned long>(look->download->key_ts));
    ALOGI("found status file: %s status:%d\n", name, look->status);
    ALOGI("%s:%s removed %d\n", look->function, path, removed);
}

void handle_file(const char* name, mccbandlist_file kind, bool is_said, dload_look* look) {
    const entry_path path(look->directory, name);
    switch (kind) {
        case mccbandlist_file::OTHER:
        case mccbandlist_file::REQUEST:
            break;
        case mccbandlist_file::CANCELLED:
            (void)unlinkat(look->dir_fd, name, 0);
            if (is_said) ALOGI("%s: removed %s\n", look->function, path.text);
            break;
        case mccbandlist_file::STATUS:
            handle_status_file(name, path.text, is_said, look);
            break;
        case mccbandlist_file::LIST:
            look->has_list = true;
            memcpy(look->download->path, path.text, sizeof path.text);
            if (is_said) ALOGI("found downloaded file: %s\n", name);
            break;
    }
}

// Beyond what is said of others, they are counted by their names alone.
void look_at(const char* name, const mccbandlist_request& request, dload_look* look) {
    const mccbandlist_file kind = mccbandlist_classify(name, request);
    unsigned& count = kind == mccbandlist_file::OTHER ? look->others : look->of_course;
    const bool is_said = count < NAMES_SAID_MAX;
    if (!is_said && kind == mccbandlist_file::OTHER) {
        ++count;
        return;
    }
    if (!is_regular_file(look->dir_fd, name)) return;
    ++count;
    if (is_said) ALOGI("%s:sub dropbox has file: %s\n", look->function, name);
    handle_file(name, kind, is_said, look);
}

unsigned beyond(unsigned count) {
    return count > NAMES_SAID_MAX ? count - NAMES_SAID_MAX : 0;
}

int result_of(const dload_look& look) {
    if (look.has_list && look.has_status && look.status == STATUS_OK) {
        ALOGI("successfully downloaded the file");
        return 0;
    }
    if (look.has_list && look.has_status) {
        ALOGE("failed to process download request");
        return -EINVAL;
    }
    if (look.has_list) {
        ALOGI("partially downloaded");
        return -EEXIST;
    }
    if (look.has_status) {
        ALOGI("status file only %d", look.status);
        return look.status;
    }
    ALOGI("not found status file or downloaded file");
    return -ENOENT;
}

}  // namespace

int mccbandlist_send_dload_req(mccbandlist_request* request, uint64_t last_key_ts) {
    if (last_key_ts != 0) {
        snprintf(request->key, sizeof request->key, "%s.%lu", LIST_NAME,
                 static_cast<unsigned long>(last_key_ts));
    } else {
        snprintf(request->key, sizeof request->key, "%s", LIST_NAME);
    }
    dload_req& fields = request->fields;
    fields.key = request->key;
    if (g_is_debug_build) {
        ALOGI("%s: test run ", __func__);
        fields.request_timer = TEST_REQUEST_TIMER;
        fields.conn_timer = TEST_CONN_TIMER_S;
    }
    ALOGI("%s: client_id=%d, ver=%s, key=%s", __func__, fields.client_id, fields.version,
          fields.key);
    ALOGI("%s: req_type=%d, conn_type=%d", __func__, fields.request_type, fields.conn_type);
    ALOGI("%s: req_timer=%d, conn_timer=%d seconds", __func__, fields.request_timer,
          fields.conn_timer);
    return vexastats_dload_req(&fields);
}

int mccbandlist_check_dload_result(const char* directory, const mccbandlist_request& request,
                                   int* status, mccbandlist_download* result) {
    const unique_dir dir = open_unlinked_dir(directory);
    if (!dir) {
        ALOGE("%s: error, no dropbox %s", __func__, directory);
        return -ENOENT;
    }
    *result = {};
    dload_look look{.directory = directory,
                    .dir_fd = dirfd(dir.get()),
                    .function = __func__,
                    .download = result};
    while (const dirent* entry = look.names < NAMES_READ_MAX ? readdir(dir.get()) : nullptr) {
        ++look.names;
        if (entry->d_type != DT_DIR) look_at(entry->d_name, request, &look);
    }
    const unsigned unsaid = beyond(look.of_course) + beyond(look.others);
    if (unsaid > 0) ALOGI("%s: %u more files\n", __func__, unsaid);
    *status = look.status;
    return result_of(look);
}

mccbandlist_file mccbandlist_classify(std::string_view name, const mccbandlist_request& request) {
    const request_id id(request);
    const std::string_view id_text(id.text);
    if (name.starts_with(id_text)) {
        const std::string_view rest = name.substr(id_text.size());
        if (rest == ".req" || rest == ".cancel") return mccbandlist_file::REQUEST;
        if (rest.starts_with("-cancel-")) return mccbandlist_file::CANCELLED;
        // A report of progress ("-progress-") too, and so it ends the attempt: deliberate.
        return mccbandlist_file::STATUS;
    }
    if (name.starts_with(request.key)) return mccbandlist_file::LIST;
    return mccbandlist_file::OTHER;
}

int mccbandlist_status_number(std::string_view name) {
    const size_t hyphen = name.rfind('-');
    if (hyphen == name.npos) return 0;
    text_cursor text(name.substr(hyphen + 1));
    int64_t number = 0;
    const bool is_int = scan_signed(&text, &number) && number >= INT_MIN && number <= INT_MAX;
    return is_int ? static_cast<int>(number) : 0;
}

bool mccbandlist_scan_key_ts(std::string_view name, uint64_t* key_ts) {
    const size_t client_end = name.find_first_not_of("0123456789");
    if (client_end == 0 || client_end == name.npos || name[client_end] != '-') return false;
    const size_t version_end = name.find('-', client_end + 1);
    if (version_end == name.npos || version_end == client_end + 1) return false;
    text_cursor text(name.substr(version_end + 1));
    return scan_literal(&text, "mccbandlist.bin.") && scan_unsigned(&text, key_ts);
}
