#define LOG_TAG "vexastatsd"

#include <errno.h>
#include <stdio.h>

#include <algorithm>

#include "base/replace_file.h"
#include "collectors/static/aost_reporter.h"
#include "framework/config/config.h"
#include "framework/config/config_line.h"
#include "framework/config/dload.h"
#include "framework/row/version.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

constexpr char COLLECTOR[] = "aost_collector";
constexpr char LOCAL_FILE[] = "/data/vendor/vexastats/3/.aoststats.cfg";
constexpr char DOWNLOADED_FILE[] = "/data/vendor/vexa/down/3/aoststats.cfg";
constexpr uint64_t PARAMS_LIFE_MS = days_ms(5);

struct aost_values {
    int64_t client_id = 0;
    int64_t interval_s = 0;
};

// "clientid=%u;interval=%u"; returns how many values were read.
int parse_line(const char* line, aost_values* values) {
    long long client_id = 0;
    long long interval_s = 0;
    const int count = sscanf(line, "clientid=%lld;interval=%lld", &client_id, &interval_s);
    *values = {.client_id = client_id, .interval_s = interval_s};
    return count;
}

// The interval counts even when the file is another client's: deliberate.
bool read_config_line(void* owner, const char* line, bool is_local) {
    const auto* row = static_cast<const collector_info*>(owner);
    aost_values values;
    if (parse_line(line, &values) != 2) return false;
    g_aost.interval_s =
        static_cast<uint32_t>(std::clamp<int64_t>(values.interval_s, INT32_MIN, UINT32_MAX));
    if (values.client_id != static_cast<int64_t>(row->hdr.client_id)) return false;
    if (!is_local) ALOGD("new interval=%d", static_cast<int>(g_aost.interval_s));
    return true;
}

int update_local_file(void* owner) {
    const auto* row = static_cast<const collector_info*>(owner);
    char text[CONFIG_LINE_SIZE];
    const int len =
        snprintf(text, sizeof text, "#%s config file. Version: %s\nclientid=%d;interval=%d\n",
                 COLLECTOR, VEXASTATSD_VERSION, static_cast<int>(row->hdr.client_id),
                 static_cast<int>(g_aost.interval_s));
    const int result = vexastats_replace_file(LOCAL_FILE, text, static_cast<size_t>(len));
    if (result == 0) return 0;
    ALOGE("failed to open aoststats cfg. err:%d\n", -result);
    return -EINVAL;
}

}  // namespace

int aost_imsa_init_params(collector_info* row) {
    return vexastats_load_config({.local = LOCAL_FILE,
                                  .downloaded = DOWNLOADED_FILE,
                                  .client_id = row->hdr.client_id,
                                  .owner = row,
                                  .read_line = read_config_line,
                                  .update_local = update_local_file});
}

void aost_request_config(const collector_info& row) {
    const dload_req request{.client_id = static_cast<int32_t>(row.hdr.client_id),
                            .version = "1.1",
                            .key = "aoststats.cfg"};
    if (vexastats_dload_req(&request) != 0) ALOGE("%s: dload request failed\n", "aost_imsa_init");
}

void aost_load_params(collector_info* row) {
    if (aost_imsa_init_params(row) != 0) ALOGE("aost_imsa_init_params failed. use default value\n");
    g_aost.last_params_ms = vexastats_uptime_ms();
}

void aost_reload_params(collector_info* row) {
    const uint64_t uptime_ms = vexastats_uptime_ms();
    if (uptime_ms - g_aost.last_params_ms < PARAMS_LIFE_MS) return;
    if (aost_imsa_init_params(row) != 0) ALOGE("update params failed.\n");
    g_aost.last_params_ms = uptime_ms;
}
