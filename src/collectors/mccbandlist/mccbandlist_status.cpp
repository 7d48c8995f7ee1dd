#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/mccbandlist_status.h"

#include <errno.h>
#include <stdio.h>

#include "base/open_file.h"
#include "base/replace_file.h"
#include "base/text_cursor.h"
#include "base/text_file.h"
#include "base/unique_handle.h"
#include "framework/config/config_line.h"
#include "platform/log.h"

namespace {

constexpr char STATUS_FILE[] = "/data/vendor/vexastats/51/.mccbandlist.info";

}  // namespace

bool mccbandlist_parse_status(std::string_view line, mccbandlist_status* status) {
    text_cursor text(line);
    return scan_literal(&text, "last_dl_done_ts=") &&
           scan_unsigned(&text, &status->last_dl_done_ts) && scan_literal(&text, ";last_key_ts=") &&
           scan_unsigned(&text, &status->last_key_ts);
}

int mccbandlist_get_status(mccbandlist_status* status) {
    if (status->unsaved) return 0;
    *status = {};
    const unique_file stream = fopen_regular(STATUS_FILE, SMALL_FILE_MAX);
    if (!stream) {
        ALOGI("no info file");
        return -EINVAL;
    }
    char line[CONFIG_LINE_SIZE];
    mccbandlist_status read;
    const bool valid =
        config_read_value_line(stream.get(), line) && mccbandlist_parse_status(line, &read);
    if (valid) *status = read;
    ALOGI("%s: done", __func__);
    return valid ? 0 : -EINVAL;
}

int mccbandlist_set_status(mccbandlist_status* status) {
    char line[CONFIG_LINE_SIZE];
    const auto last_dl_done_ts = static_cast<unsigned long>(status->last_dl_done_ts);
    const auto last_key_ts = static_cast<unsigned long>(status->last_key_ts);
    const int len = snprintf(line, sizeof line, "last_dl_done_ts=%lu;last_key_ts=%lu;",
                             last_dl_done_ts, last_key_ts);
    const int result = vexastats_replace_file(STATUS_FILE, line, static_cast<size_t>(len));
    status->unsaved = result != 0;
    if (result != 0) {
        ALOGE("file open failed %s %d", STATUS_FILE, -result);
        return -EINVAL;
    }
    ALOGI("%s: last_dl_done_ts=%lu;last_key_ts=%lu;", __func__, last_dl_done_ts, last_key_ts);
    return 0;
}
