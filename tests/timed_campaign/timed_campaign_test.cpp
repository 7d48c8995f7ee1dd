// The configuration file of a timed campaign: what is read from where.
#include "timed_campaign/campaign_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "framework/row/version.h"

namespace {

std::vector<uint32_t> masks_of(const std::string& text) {
    // In memory of its own, so that a sanitizer sees any step past the end.
    const std::vector<char> exact(text.begin(), text.end());
    const std::string_view view(exact.data(), exact.size());
    campaign_line line;
    if (!campaign_line_parse(view, "alog", &line)) return {0xbad};
    campaign_line_clamp(&line);
    std::vector<uint32_t> masks(static_cast<size_t>(line.mask_count), 0x5a5a5a5a);
    campaign_masks_parse(view, "alog", line, masks.data());
    return masks;
}

TEST(CampaignFile, MasksAreReadFromTheirCanonicalPlaceAndNowhereElse) {
    const std::string head = "clientid=501;size=65536;campaign_id=7;campaign_duration_secs=60;";
    const struct {
        const char* what;
        std::string text;
        std::vector<uint32_t> masks;
    } cases[] = {
        {"none", head + "num_alog_masks=0;alog_mask=0x1;", {}},
        {"two", head + "num_alog_masks=2;alog_mask=0x1;alog_mask=0xffffffff;", {1, 0xffffffff}},
        {"zero", head + "num_alog_masks=2;alog_mask=0x0;alog_mask=0x2;", {0, 2}},
        {"digits in capitals", head + "num_alog_masks=1;alog_mask=0xAB;", {0xab}},
        {"fewer than counted", head + "num_alog_masks=3;alog_mask=0x1;", {1, 0, 0}},
        {"not a mask", head + "num_alog_masks=2;nonsense=0x1;;alog_mask=0x2;", {0, 2}},
        {"leading zero moves the place",
         head + "num_alog_masks=02;alog_mask=0x1;alog_mask=0x2;",
         {0, 0}},
        {"a mask's leading zero moves the next",
         head + "num_alog_masks=2;alog_mask=0x01;alog_mask=0x2;",
         {1, 0}},
        {"negative size",
         "clientid=501;size=-5;campaign_id=-7;campaign_duration_secs=60;"
         "num_alog_masks=1;alog_mask=0x3;",
         {3}},
        {"cut duration moves the place by nothing when it is as long",
         "clientid=501;size=1;campaign_id=7;campaign_duration_secs=99999;"
         "num_alog_masks=1;alog_mask=0x3;",
         {3}},
        {"cut duration moves the place when it is not",
         "clientid=501;size=1;campaign_id=7;campaign_duration_secs=100000;"
         "num_alog_masks=1;alog_mask=0x3;",
         {0}},
        {"ends right behind the values", head + "num_alog_masks=2", {0, 0}},
        {"no number", "clientid=501;size=x;", {0xbad}},
        {"another kind", head + "num_diag_masks=1;alog_mask=0x1;", {0xbad}},
    };
    for (const auto& c : cases) EXPECT_EQ(masks_of(c.text), c.masks) << c.what;
}

TEST(CampaignFile, SixtyFourMasksAreTheMost) {
    std::string text = "clientid=501;size=1;campaign_id=7;campaign_duration_secs=1;num_alog_masks=";
    std::vector<uint32_t> expected;
    std::string list;
    for (uint32_t i = 0; i < 70; ++i) list += "alog_mask=0x1;";
    EXPECT_EQ(masks_of(text + "64;" + list), std::vector<uint32_t>(64, 1));
    EXPECT_EQ(masks_of(text + "70;" + list), std::vector<uint32_t>(64, 1));
    EXPECT_EQ(masks_of(text + "-1;" + list).size(), 0u);
    // One digit fewer than what was written: the place is one too early.
    EXPECT_EQ(masks_of(text + "100;" + list), std::vector<uint32_t>(64, 0));
}

TEST(CampaignFile, StateLineNeedsBothValues) {
    const struct {
        const char* text;
        bool whole;
        int32_t id;
        uint64_t stop_time_s;
    } cases[] = {
        {"Active Campaign=7;Stop Time=1700000600;", true, 7, 1700000600},
        {"Active Campaign=-1;Stop Time=0", true, -1, 0},
        {"ActiveCampaign= 7;Stop  Time=5;", true, 7, 5},
        {"Active Campaign=7;", false, 99, 99},
        {"Active Campaign=;Stop Time=5;", false, 99, 99},
        {"", false, 99, 99},
        {"active campaign=7;stop time=5;", false, 99, 99},
    };
    for (const auto& c : cases) {
        int32_t id = 99;
        uint64_t stop_time_s = 99;
        EXPECT_EQ(campaign_state_parse(c.text, &id, &stop_time_s), c.whole) << c.text;
        EXPECT_EQ(id, c.id) << c.text;
        EXPECT_EQ(stop_time_s, c.stop_time_s) << c.text;
    }
}

TEST(CampaignFile, LargestFileFitsItsBufferAndIsReadAgain) {
    campaign_state campaign{.id = INT32_MIN,
                            .stop_time_s = UINT64_MAX,
                            .duration_s = CAMPAIGN_DURATION_MAX_S,
                            .mask_count = CAMPAIGN_MASKS_MAX,
                            .masks = std::make_unique<uint32_t[]>(CAMPAIGN_MASKS_MAX)};
    std::fill_n(campaign.masks.get(), CAMPAIGN_MASKS_MAX, 0xffffffffu);
    char text[CAMPAIGN_FILE_SIZE];
    const size_t len = campaign_file_format(text, "alog_collector", "alog", 501,
                                            CAMPAIGN_SIZE_MAX_BYTES, campaign);
    const std::string written(text, len);
    EXPECT_TRUE(written.ends_with(";Stop Time=18446744073709551615;")) << written;
    const std::string line = written.substr(written.find('\n') + 1);
    EXPECT_EQ(masks_of(line.substr(0, line.find('\n'))),
              std::vector<uint32_t>(CAMPAIGN_MASKS_MAX, 0xffffffff));
}

}  // namespace
