// The modem's campaign, by bytes written out by hand.
#include "collectors/mps/mps_campaign_desc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/gzip.h"
#include "support/log.h"
#include "support/owned_text.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(MpsCampaignDesc, HandWrittenModemCampaignIsRead) {
    const std::string logic = bytes(
        "12 1c 09 0100000000000000 22 02 aabb 2a 00 30 09"  // id, two specs (one empty), field 6
        "  42 01 01 42 02 0203 10 07 1a 00"                 // LLL spec twice, fields not used
        "0a 0d 08 01 10 d8 04 18 03 20 04 28 05 30 06");
    MpsCampaign campaign;
    campaign.static_spec.length = 77;  // of an earlier one
    ASSERT_TRUE(mps_campaign_desc_decode_from_buffer(raw(logic), logic.size(), &campaign));
    EXPECT_THAT(log_text(), HasSubstr("Collection Spec Size 2 Static Spec Size 0 Ctxt Spec Size 0 "
                                      "LLL spec Size 2\n"));
    EXPECT_THAT(std::vector({campaign.bsiBufferFetchIntSec, campaign.powerBudgetMeasIntr,
                             campaign.powerBudgetMaxAPWakeup, campaign.specField6,
                             campaign.lllDelaySecs, campaign.configField6}),
                ElementsAre(600, 3, 4, 9, 5, 6));
    EXPECT_EQ(text(campaign.collection_spec) + text(campaign.lll_spec), bytes("aabb0203"));
    EXPECT_EQ(campaign.static_spec.length, 0u);
    // Damaged: a campaign of zeros, and still a success.
    EXPECT_TRUE(mps_campaign_desc_decode_from_buffer(raw(logic), logic.size() - 1, &campaign));
    EXPECT_EQ(campaign.bsiBufferFetchIntSec + campaign.lll_spec.length, 0u);
    EXPECT_FALSE(mps_campaign_desc_decode_from_buffer(nullptr, 1, &campaign));
}

}  // namespace
