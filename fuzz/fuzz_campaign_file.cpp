// The configuration file of a timed campaign.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "timed_campaign/campaign_file.h"

namespace {

void check(bool holds) {
    if (!holds) abort();
}

// What the daemon writes it must read again.
void check_written_file(const char* kind, const campaign_line& line,
                        const campaign_state& campaign) {
    char text[CAMPAIGN_FILE_SIZE];
    const size_t len =
        campaign_file_format(text, "a_collector", kind, line.client_id, line.size_bytes, campaign);
    std::string_view written(text, len);
    written.remove_prefix(written.find('\n') + 1);
    const size_t line_len = written.find('\n');
    const std::string_view values = written.substr(0, line_len);

    campaign_line again;
    check(campaign_line_parse(values, kind, &again));
    check(again.size_bytes == line.size_bytes && again.campaign_id == campaign.id &&
          again.duration_s == campaign.duration_s && again.mask_count == campaign.mask_count);
    uint32_t masks[CAMPAIGN_MASKS_MAX];
    campaign_masks_parse(values, kind, again, masks);
    for (int32_t i = 0; i < again.mask_count; ++i) check(masks[i] == campaign.masks[i]);

    int32_t id = 0;
    uint64_t stop_time_s = 0;
    check(campaign_state_parse(written.substr(line_len + 1), &id, &stop_time_s));
    check(id == campaign.id && stop_time_s == campaign.stop_time_s);
}

void check_as(const char* kind, std::string_view text) {
    const std::string_view first = text.substr(0, text.find('\n'));
    campaign_state campaign;
    if (first.size() < text.size()) {
        (void)campaign_state_parse(text.substr(first.size() + 1), &campaign.id,
                                   &campaign.stop_time_s);
    }
    campaign_line line;
    if (!campaign_line_parse(first, kind, &line)) return;
    campaign_line_clamp(&line);
    campaign.duration_s = line.duration_s;
    campaign.mask_count = line.mask_count;
    campaign.masks = std::make_unique<uint32_t[]>(static_cast<size_t>(line.mask_count));
    campaign_masks_parse(first, kind, line, campaign.masks.get());
    check_written_file(kind, line, campaign);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // In memory of its own, so that any step past the end is seen.
    const auto copy = std::make_unique<char[]>(size);
    for (size_t i = 0; i < size; ++i) copy[i] = static_cast<char>(data[i]);
    for (const char* kind : {"alog", "diag"}) check_as(kind, {copy.get(), size});
    return 0;
}
