#define LOG_TAG "vexastatsd"

#include "framework/dload.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>

#include "framework/files.h"
#include "framework/unique_handle.h"
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

}  // namespace

int vexastats_dload_req(const dload_req* req) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/%d/%d-%s-%s.req", DOWNLOAD_ROOT, req->client_id, req->client_id,
             req->version, req->key);
    const unique_file file(fopen(path, "w+e"));
    if (!file || !write_request(file.get(), *req)) {
        ALOGE("failed to create %s. err:%d\n", path, errno);
        return -EINVAL;
    }
    return 0;
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
    const unique_dir dir(row->down_dir ? opendir(row->down_dir) : nullptr);
    if (!dir) {
        ALOGE("%s: not exist", __func__);
        return;
    }
    // "." and ".." are listed and logged like the rest; deleting them simply fails: deliberate.
    while (const dirent* entry = readdir(dir.get())) {
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s/%s", row->down_dir, entry->d_name);
        (void)remove(path);
        ALOGI("%s: removed %s", __func__, path);
    }
}
