// The configuration file of a timed campaign as a dialogue: what is read from where.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "support/dialogue.h"
#include "timed_campaign/campaign_file.h"

namespace {

// In memory of its own, so that a sanitizer sees any step past the end.
std::string masks_text(const std::string& text) {
    const std::vector<char> exact(text.begin(), text.end());
    const std::string_view view(exact.data(), exact.size());
    campaign_line line;
    if (!campaign_line_parse(view, "alog", &line)) return "refused\n";
    campaign_line_clamp(&line);
    std::vector<uint32_t> masks(static_cast<size_t>(line.mask_count), 0x5a5a5a5a);
    campaign_masks_parse(view, "alog", line, masks.data());
    std::ostringstream found;
    found << line.client_id << ' ' << line.size_bytes << ' ' << line.campaign_id << ' '
          << line.duration_s << ':';
    for (const uint32_t mask : masks) found << ' ' << mask;
    return found.str() + "\n";
}

std::string state_text(const std::string& text) {
    int32_t id = 99;
    uint64_t stop_time_s = 99;
    const bool whole = campaign_state_parse(text, &id, &stop_time_s);
    return std::to_string(id) + " " + std::to_string(stop_time_s) + (whole ? "" : " refused") +
           "\n";
}

std::string answer(const std::string& question) {
    std::istringstream lines(question);
    std::string found;
    for (std::string line; std::getline(lines, line);)
        found += line.starts_with("clientid") ? masks_text(line) : state_text(line);
    return found;
}

TEST(CampaignFile, IsReadFromItsPlaces) {
    expect_dialogue("timed_campaign/campaign_file", answer);
}

TEST(CampaignFile, LargestFileFitsItsBufferAndIsReadAgain) {
    campaign_state campaign{.id = INT32_MIN,
                            .stop_time_s = UINT64_MAX,
                            .duration_s = CAMPAIGN_DURATION_MAX_S,
                            .mask_count = CAMPAIGN_MASKS_MAX,
                            .masks = std::make_unique<uint32_t[]>(CAMPAIGN_MASKS_MAX)};
    memset(campaign.masks.get(), 0xff, CAMPAIGN_MASKS_MAX * sizeof(uint32_t));
    char text[CAMPAIGN_FILE_SIZE];
    const size_t len = campaign_file_format(text, "alog_collector", "alog", 501,
                                            CAMPAIGN_SIZE_MAX_BYTES, campaign);
    std::string written(text, len);
    EXPECT_TRUE(written.ends_with(";Stop Time=18446744073709551615;")) << text;
    std::string masks;
    for (int i = 0; i < CAMPAIGN_MASKS_MAX; ++i) masks += " 4294967295";
    for (const char* count : {"=64;", "=65;"}) {  // one more is one too many
        written.replace(written.find("_masks=") + 6, 4, count);
        EXPECT_EQ(masks_text(written.substr(written.find('\n') + 1)),
                  "501 1048576 -2147483648 10800:" + masks + "\n");
    }
}

}  // namespace
