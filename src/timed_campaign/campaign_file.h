// The configuration file of a campaign that runs for a set time:
//
//   clientid=501;size=65536;campaign_id=7;campaign_duration_secs=600;num_alog_masks=1;alog_mask=0x3;
//   Active Campaign=7;Stop Time=1700000600;
//
// The mask list is found by its position: it begins where it would if the numbers in front of it
// were written in their shortest form and within their limits. Text that is written otherwise is
// therefore read from another place: deliberate. `kind` is the collector's word in the keys.
//
// No function logs. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

inline constexpr int32_t NO_CAMPAIGN = -1;
inline constexpr int32_t CAMPAIGN_SIZE_MAX_BYTES = 0x100000;
inline constexpr int32_t CAMPAIGN_DURATION_MAX_S = 10800;
inline constexpr int32_t CAMPAIGN_MASKS_MAX = 64;

// Size of a buffer for one line of the file; longer lines are read in pieces.
inline constexpr int CAMPAIGN_LINE_SIZE = 2048;

// Size of a buffer that the whole file of any campaign fits.
inline constexpr size_t CAMPAIGN_FILE_SIZE = 2048;

// What a file says of a campaign, and what is remembered of it.
struct campaign_state {
    int32_t id = NO_CAMPAIGN;  // the running one
    uint64_t stop_time_s = 0;  // wall clock, seconds since 1970; 0: none
    int32_t duration_s = 0;
    int32_t mask_count = 0;
    std::unique_ptr<uint32_t[]> masks{};  // mask_count of them, or null
};

// The values of a file's first line.
struct campaign_line {
    uint32_t client_id = 0;
    int32_t size_bytes = 0;
    int32_t campaign_id = 0;
    int32_t duration_s = 0;
    int32_t mask_count = 0;
};

// The wall clock in seconds, rounded to the nearest.
uint64_t campaign_now_s();

// Reads the values up to the mask list. Returns false when one of the five is missing.
bool campaign_line_parse(std::string_view text, const char* kind, campaign_line* line);

// Brings duration and number of masks within their limits.
void campaign_line_clamp(campaign_line* line);

// Reads line.mask_count masks from the place in the line's text where they have to be, never past
// the text's end. A mask that is not there is 0. Returns the length that was moved on by last.
int campaign_masks_parse(std::string_view text, const char* kind, const campaign_line& line,
                         uint32_t* masks);

// Reads "Active Campaign=%d;Stop Time=%lu;". Returns false, with both left alone, unless both are
// there.
bool campaign_state_parse(std::string_view text, int32_t* id, uint64_t* stop_time_s);

// Writes the file of a campaign: comment, values, masks and state. Returns its length; `out` holds
// CAMPAIGN_FILE_SIZE bytes.
size_t campaign_file_format(char* out, const char* collector, const char* kind, uint32_t client_id,
                            int32_t size_bytes, const campaign_state& campaign);
