#define LOG_TAG "vexastatsd"

#include "framework/config/dload.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include <utility>

#include "base/open_file.h"
#include "base/text_file.h"
#include "base/unique_handle.h"
#include "platform/log.h"

namespace {

constexpr char DOWNLOAD_ROOT[] = "/data/vendor/vexa/down";

bool write_request(FILE* stream, const dload_req& req) {
    return fprintf(stream,
                   "clientID=%d\nversion=%s\nkey=%s\nrequestType=%d\nrequestTimer=%d\n"
                   "connType=%d\nconnTimer=%d\n",
                   req.client_id, req.version, req.key, req.request_type, req.request_timer,
                   req.conn_type, req.conn_timer) > 0 &&
           fflush(stream) == 0;
}

// A file, or a directory that is empty.
void remove_at(int dir_fd, const char* name) {
    if (unlinkat(dir_fd, name, 0) != 0) (void)unlinkat(dir_fd, name, AT_REMOVEDIR);
}

// Others may write to the directory, too: whatever lies under the request's name or under the new
// file's is not written through, for it could be a link to a file of the daemon's. The dot keeps
// the new file out of the replies, which begin with the request's name. Returns 0 or an errno.
int file_request(const char* beside, const char* path, const dload_req& req) {
    (void)unlink(beside);  // what a run that was killed left
    unique_fd fd = open_new(beside, 0666);
    if (!fd) return errno;
    const unique_file file = stream_of(std::move(fd), "w");
    if (file && write_request(file.get(), req) && rename(beside, path) == 0) return 0;
    const int error = errno;
    (void)unlink(beside);
    return error;
}

}  // namespace

int vexastats_dload_req(const dload_req* req) {
    char path[PATH_MAX];
    char beside[PATH_MAX];
    snprintf(path, sizeof path, "%s/%d/%d-%s-%s.req", DOWNLOAD_ROOT, req->client_id, req->client_id,
             req->version, req->key);
    snprintf(beside, sizeof beside, "%s/%d/.%d-%s-%s.req", DOWNLOAD_ROOT, req->client_id,
             req->client_id, req->version, req->key);
    const int error = file_request(beside, path, *req);
    if (error == 0) return 0;
    ALOGE("failed to create %s. err:%d\n", path, error);
    return -EINVAL;
}

bool vexastats_is_dl_enabled(const collector_info* row) {
    if (!row) {
        ALOGE("%s:invalid param", __func__);
        return false;
    }
    const bool enabled = is_dir_exist(row->down_dir);
    if (enabled) {
        ALOGI("enabled %s", row->down_dir);
    } else {
        ALOGI("disabled %s ", row->down_dir);
    }
    return enabled;
}

void vexastats_dl_cleanup(const collector_info* row) {
    if (!row) {
        ALOGE("%s:invalid param", __func__);
        return;
    }
    const unique_dir dir = row->down_dir ? open_unlinked_dir(row->down_dir) : nullptr;
    if (!dir) {
        ALOGE("%s: not exist", __func__);
        return;
    }
    // "." and ".." are listed and logged like the rest; deleting them simply fails: deliberate.
    while (const dirent* entry = readdir(dir.get())) {
        remove_at(dirfd(dir.get()), entry->d_name);
        ALOGI("%s: removed %s/%s", __func__, row->down_dir, entry->d_name);
    }
}
