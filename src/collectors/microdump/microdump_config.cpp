#define LOG_TAG "vexastatsd"

#include "collectors/microdump/microdump_config.h"

#include <errno.h>

#include <algorithm>

#include "base/replace_file.h"
#include "base/text_cursor.h"
#include "framework/config/config.h"
#include "framework/config/config_line.h"
#include "framework/row/version.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

constexpr uint64_t UPLOAD_WAIT_MAX_MS = days_ms(5);

}  // namespace

bool microdump_config_parse(std::string_view line, microdump_config* config) {
    text_cursor text(line);
    return scan_literal(&text, "clientid=") && scan_signed(&text, &config->client_id) &&
           scan_literal(&text, ";size=") && scan_signed(&text, &config->size) &&
           scan_literal(&text, ";maxuploadwaittime=") &&
           scan_unsigned(&text, &config->max_upload_wait_time);
}

void microdump_cfg_read_handler(FILE* stream, collector_info* row) {
    char line[CONFIG_LINE_SIZE];
    microdump_config config;
    if (!stream || !config_read_value_line(stream, line) ||
        !microdump_config_parse(line, &config) ||
        config.client_id != static_cast<int64_t>(row->hdr.client_id)) {
        ALOGE("invalid %d config file. re-create. err:%d\n", static_cast<int>(row->hdr.client_id),
              errno);
        return;
    }
    row->size = static_cast<int32_t>(std::clamp<int64_t>(config.size, 0, CONFIG_SIZE_MAX));
    row->max_upload_wait_time = std::min(config.max_upload_wait_time, UPLOAD_WAIT_MAX_MS);
}

int microdump_cfg_update_handler(collector_info* row) {
    char text[CONFIG_LINE_SIZE];
    const int len = snprintf(text, sizeof text,
                             "#%s config file. Version: %s\n"
                             "clientid=%d;size=%d;maxuploadwaittime=%lu",
                             row->name, VEXASTATSD_VERSION, static_cast<int>(row->hdr.client_id),
                             row->size, static_cast<unsigned long>(row->max_upload_wait_time));
    const int result = vexastats_replace_file(row->cfg_file, text, static_cast<size_t>(len));
    if (result != 0) {
        ALOGE("failed to open %s cfg. err:%d\n", row->name, -result);
        return -EINVAL;
    }
    return 0;
}
