#include "timed_campaign/campaign_file.h"

#include <stdio.h>

#include <algorithm>

#include "base/text_cursor.h"
#include "framework/row/version.h"
#include "framework/time/clock.h"

namespace {

bool scan_number_key(text_cursor* text, const char* kind) {
    return scan_literal(text, ";num_") && scan_literal(text, kind) && scan_literal(text, "_masks=");
}

// The length of the values in front of the masks as the file's own writer puts them.
int values_len(const char* kind, const campaign_line& line) {
    return snprintf(nullptr, 0,
                    "clientid=%d;size=%d;campaign_id=%d;campaign_duration_secs=%d;num_%s_masks=%d",
                    static_cast<int>(line.client_id), line.size_bytes, line.campaign_id,
                    line.duration_s, kind, line.mask_count);
}

uint32_t mask_at(std::string_view text, const char* kind) {
    text_cursor cursor(text);
    uint32_t mask = 0;
    if (scan_literal(&cursor, kind) && scan_literal(&cursor, "_mask=0x")) {
        (void)scan_hex(&cursor, &mask);
    }
    return mask;
}

}  // namespace

uint64_t campaign_now_s() {
    return (vexastats_real_time_ms() + 500) / 1000;
}

bool campaign_line_parse(std::string_view text, const char* kind, campaign_line* line) {
    text_cursor cursor(text);
    return scan_literal(&cursor, "clientid=") && scan_narrow(&cursor, &line->client_id) &&
           scan_literal(&cursor, ";size=") && scan_int(&cursor, &line->size_bytes) &&
           scan_literal(&cursor, ";campaign_id=") && scan_int(&cursor, &line->campaign_id) &&
           scan_literal(&cursor, ";campaign_duration_secs=") &&
           scan_int(&cursor, &line->duration_s) && scan_number_key(&cursor, kind) &&
           scan_int(&cursor, &line->mask_count);
}

void campaign_line_clamp(campaign_line* line) {
    line->duration_s = std::clamp(line->duration_s, 0, CAMPAIGN_DURATION_MAX_S);
    line->mask_count = std::clamp(line->mask_count, 0, CAMPAIGN_MASKS_MAX);
}

int campaign_masks_parse(std::string_view text, const char* kind, const campaign_line& line,
                         uint32_t* masks) {
    int moved_on = values_len(kind, line) + 1;
    for (int32_t i = 0; i < line.mask_count; ++i) {
        text.remove_prefix(std::min(static_cast<size_t>(moved_on), text.size()));
        masks[i] = mask_at(text, kind);
        moved_on = snprintf(nullptr, 0, "%s_mask=0x%x", kind, masks[i]) + 1;
    }
    return moved_on;
}

bool campaign_state_parse(std::string_view text, int32_t* id, uint64_t* stop_time_s) {
    text_cursor cursor(text);
    int32_t found_id = 0;
    uint64_t found_time_s = 0;
    if (!scan_literal(&cursor, "Active")) return false;
    skip_blanks(&cursor);
    if (!scan_literal(&cursor, "Campaign=") || !scan_int(&cursor, &found_id)) return false;
    if (!scan_literal(&cursor, ";Stop")) return false;
    skip_blanks(&cursor);
    if (!scan_literal(&cursor, "Time=") || !scan_unsigned(&cursor, &found_time_s)) return false;
    *id = found_id;
    *stop_time_s = found_time_s;
    return true;
}

size_t campaign_file_format(char* out, const char* collector, const char* kind, uint32_t client_id,
                            int32_t size_bytes, const campaign_state& campaign) {
    size_t len = 0;
    const auto room = [&] { return CAMPAIGN_FILE_SIZE - len; };
    const auto advance = [&](int wanted) {
        len += std::min(static_cast<size_t>(std::max(wanted, 0)), room() - 1);
    };
    advance(snprintf(out, room(), "#%s config file. Version: %s\n", collector, VEXASTATSD_VERSION));
    advance(snprintf(out + len, room(),
                     "clientid=%d;size=%d;campaign_id=%d;campaign_duration_secs=%d;"
                     "num_%s_masks=%d;",
                     static_cast<int>(client_id), size_bytes, campaign.id, campaign.duration_s,
                     kind, campaign.mask_count));
    for (int32_t i = 0; campaign.masks && i < campaign.mask_count; ++i) {
        advance(snprintf(out + len, room(), "%s_mask=0x%x;", kind, campaign.masks[i]));
    }
    advance(snprintf(out + len, room(), "\nActive Campaign=%d;Stop Time=%lu;", campaign.id,
                     static_cast<unsigned long>(campaign.stop_time_s)));
    return len;
}
