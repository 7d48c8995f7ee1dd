// The configuration file of a timed campaign.
#include <memory>

#include "fuzz_target.h"
#include "timed_campaign/campaign_file.h"

namespace {

struct campaign_file {
    campaign_line line;
    campaign_state state;
};

bool read_file(const char* kind, std::string_view text, campaign_file* file) {
    const std::string first = take_line(&text);
    (void)campaign_state_parse(text, &file->state.id, &file->state.stop_time_s);
    if (!campaign_line_parse(first, kind, &file->line)) return false;
    campaign_line_clamp(&file->line);
    file->state.duration_s = file->line.duration_s;
    file->state.mask_count = file->line.mask_count;
    file->state.masks = std::make_unique<uint32_t[]>(static_cast<size_t>(file->line.mask_count));
    campaign_masks_parse(first, kind, file->line, file->state.masks.get());
    return true;
}

// Without the remark in front.
std::string written(const char* kind, const campaign_file& file) {
    char text[CAMPAIGN_FILE_SIZE];
    const size_t len = campaign_file_format(text, "a_collector", kind, file.line.client_id,
                                            file.line.size_bytes, file.state);
    std::string_view rest(text, len);
    (void)take_line(&rest);
    return std::string(rest);
}

}  // namespace

// What the daemon writes it must read again.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const char* kind : {"alog", "diag"}) {
        campaign_file file, again;
        if (!read_file(kind, text_of(data, size), &file)) continue;
        const std::string text = written(kind, file);
        check(read_file(kind, text, &again) && again.line.campaign_id == file.state.id);
        check(written(kind, again) == text);
    }
    return 0;
}
