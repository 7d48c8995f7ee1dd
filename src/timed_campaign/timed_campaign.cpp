#include "timed_campaign/timed_campaign.h"

#include <errno.h>
#include <stdio.h>

#include <algorithm>
#include <new>

#include "base/replace_file.h"
#include "framework/config/config.h"
#include "framework/config/config_line.h"
#include "framework/config/dload.h"
#include "framework/row/optout.h"
#include "framework/time/clock.h"
#include "framework/time/wait_dir.h"
#include "platform/log.h"

// Logged under the tag of the collector.
#define LOGI(...) ((void)__android_log_print(ANDROID_LOG_INFO, texts.tag, __VA_ARGS__))
#define LOGE(...) ((void)__android_log_print(ANDROID_LOG_ERROR, texts.tag, __VA_ARGS__))

namespace {

// The next line as fgets cuts it, or nothing at the end of the file.
bool read_line(FILE* stream, char (&line)[CAMPAIGN_LINE_SIZE]) {
    return fgets(line, sizeof line, stream) != nullptr;
}

// Takes the masks, or none when there is no memory for them. Returns false then.
bool parse_masks(const char* text, const campaign_line& line, timed_campaign* campaign) {
    const campaign_texts& texts = campaign->kind->texts;
    campaign_state* state = &campaign->state;
    state->mask_count = line.mask_count;
    state->masks.reset(new (std::nothrow) uint32_t[static_cast<size_t>(line.mask_count)]());
    if (!state->masks) return false;
    const int moved_on = campaign_masks_parse(text, campaign->kind->key, line, state->masks.get());
    LOGI("Ret %d Client Id %d Size %d Campaign ID %d Duration %d Seconds Num%sMasks %d\n", moved_on,
         static_cast<int>(line.client_id), line.size_bytes, line.campaign_id, line.duration_s,
         texts.title, line.mask_count);
    for (int32_t i = 0; i < line.mask_count; ++i) {
        LOGI("%s Mask[%d]=0x%x\n", texts.title, i, state->masks[i]);
    }
    return true;
}

// Whether the line behind the values, or the campaign in memory where there is none, says that a
// campaign runs already. A line that says anything else ends it.
bool goes_on_with_active(FILE* stream, campaign_state* state) {
    char line[CAMPAIGN_LINE_SIZE];
    if (read_line(stream, line) && !campaign_state_parse(line, &state->id, &state->stop_time_s)) {
        campaign_end(state);
    }
    return state->id != NO_CAMPAIGN;
}

void start_campaign(const campaign_line& line, campaign_state* state) {
    state->stop_time_s = static_cast<uint64_t>(line.duration_s) + campaign_now_s();
    state->id = line.campaign_id;
    state->duration_s = line.duration_s;
}

// Loads the parameters and remembers which downloaded file was there to be loaded.
int load_params(timed_campaign* campaign) {
    campaign->seen = file_mark_look(campaign->row->dl_cfg_file);
    return vexastats_init_params(campaign->row);
}

// Waits for the downloaded configuration file to come or change since it was last loaded, until the
// row's `stop` is raised or a failure, which is logged. A file that ends a wait ends no other one,
// also when the cycle in between fails before it can be loaded.
void wait_update(timed_campaign* campaign) {
    const campaign_texts& texts = campaign->kind->texts;
    if (texts.logs_update_wait) LOGI("%s: \n", texts.update.caller);
    vexastats_wait_config_update(campaign->row, campaign->seen, texts.update);
    campaign->seen = file_mark_look(campaign->row->dl_cfg_file);
}

// Returns 0 or the failure, logged.
int request_config(const timed_campaign& campaign) {
    const dload_req request{.client_id = static_cast<int32_t>(campaign.row->hdr.client_id),
                            .version = "1.0",
                            .key = campaign.kind->config_file};
    const int result = vexastats_dload_req(&request);
    const campaign_texts& texts = campaign.kind->texts;
    if (result != 0) LOGE("%s: dload request failed\n", texts.request_caller);
    return result;
}

bool is_over(const campaign_state& state) {
    return campaign_now_s() > state.stop_time_s;
}

// Returns whether the row has something to do.
bool begin(timed_campaign* campaign) {
    collector_info* row = campaign->row;
    vexastats_wait_dir_ready(row->down_dir, &row->stop);
    if (request_config(*campaign) != 0) {
        if (campaign->stopped()) return false;
        wait_update(campaign);
    }
    // Also after a failed request: nothing is collected without consent.
    vexastats_wait_optin(row);
    return row->enabled;
}

}  // namespace

campaign_change campaign_read_config(FILE* stream, timed_campaign* campaign) {
    if (!stream) return campaign_change::REFUSED;
    const campaign_kind& kind = *campaign->kind;
    const campaign_texts& texts = kind.texts;
    collector_info* row = campaign->row;
    char text[CAMPAIGN_LINE_SIZE];
    campaign_line line;
    if (!config_read_value_line(stream, text) || !campaign_line_parse(text, kind.key, &line) ||
        line.client_id != row->hdr.client_id) {
        LOGE("invalid %d config file. re-create. err:%d\n", static_cast<int>(row->hdr.client_id),
             errno);
        return campaign_change::REFUSED;
    }
    if (line.campaign_id == campaign->state.id) return campaign_change::ALREADY_ACTIVE;
    row->size = std::clamp(line.size_bytes, 0, CAMPAIGN_SIZE_MAX_BYTES);
    campaign_line_clamp(&line);
    if (!parse_masks(text, line, campaign)) return campaign_change::NO_MEMORY;
    if (goes_on_with_active(stream, &campaign->state)) return campaign_change::GOES_ON;
    start_campaign(line, &campaign->state);
    return campaign_change::STARTED;
}

int campaign_write_config(const timed_campaign& campaign) {
    const collector_info& row = *campaign.row;
    const campaign_texts& texts = campaign.kind->texts;
    char text[CAMPAIGN_FILE_SIZE];
    const size_t len = campaign_file_format(text, row.name, campaign.kind->key, row.hdr.client_id,
                                            row.size, campaign.state);
    const int result = vexastats_replace_file(row.cfg_file, text, len);
    if (result == 0) return 0;
    LOGE("failed to open %s cfg. err:%d\n", row.cfg_file, -result);
    return -EINVAL;
}

void campaign_run(timed_campaign* campaign, void (*run_cycle)(void* owner), void* owner) {
    campaign->row->state = campaign;
    const bool has_work = begin(campaign);
    while (has_work && !campaign->stopped()) {
        run_cycle(owner);
        if (campaign->stopped()) break;
        wait_update(campaign);
    }
    stop_flag_raise(&campaign->row->stop);
    campaign->row->state = nullptr;
}

int campaign_wait_active(timed_campaign* campaign) {
    const collector_info& row = *campaign->row;
    const campaign_state& state = campaign->state;
    const campaign_texts& texts = campaign->kind->texts;
    const int result = load_params(campaign);
    if (result != 0) {
        LOGE("%s init_params failed. use default value\n", campaign->kind->key);
        return result;
    }
    LOGI("%sChecking for an active campaign", texts.state_prefix);
    while (is_over(state)) {
        LOGI("%sWaiting on %s", texts.wait_prefix, row.dl_cfg_file);
        wait_update(campaign);
        if (campaign->stopped()) return -EINTR;
        if (load_params(campaign) != 0) break;
    }
    LOGI("%sactive campaign: curr_time: %lu Stop Time %lu Campaign ID %d", texts.state_prefix,
         static_cast<unsigned long>(vexastats_real_time_ms() / 1000),
         static_cast<unsigned long>(state.stop_time_s), state.id);
    return 0;
}

void campaign_end(campaign_state* state) {
    state->id = NO_CAMPAIGN;
    state->stop_time_s = 0;
}
