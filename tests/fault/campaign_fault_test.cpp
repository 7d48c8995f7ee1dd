// Decoding and storing a campaign with every single call failing once: it is taken whole or refused
// with its message, and no half-made file is seen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "campaign/campaign_desc.h"
#include "fault/fault.h"
#include "platform_test.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace {

TEST(CampaignFaultTest, EveryFailedCallIsAnswered) {
    // Campaign 1 of module 6 until 1900000000, one network, logic "x".
    const std::string entry =
        bytes("0801 1006 1a08 0802 1080e6fe8907 220d 0a06 1a04 08010801 1203 0a0178");
    const std::string map = bytes("0a1d") + entry;
    std::string logged;
    long allocations = 0;
    for (const char* name : fault_calls()) {
        bool failed = true;
        for (long n = 1; failed && !testing::Test::HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << "call " << n << " of " << name);
            std::filesystem::remove_all(CAMPAIGN_DIR);
            std::filesystem::create_directories(CAMPAIGN_DIR);
            platform_test_clear_log();
            campaign_table table;
            fault_arm(name, n);
            const bool decoded =
                campaignDecode(reinterpret_cast<const uint8_t*>(map.data()), map.size(), &table);
            failed = fault_disarm();
            const std::string_view call = name;
            if (failed && (call.ends_with("alloc") || call.starts_with("_Zn"))) ++allocations;
            logged += log_text();
            EXPECT_EQ(decoded, !failed) << log_text();
            const std::string stored =
                file_text(std::string(CAMPAIGN_DIR) + "/6-1-1900000000.camp");
            EXPECT_TRUE(stored == entry || (stored.empty() && !decoded));
            EXPECT_EQ(list_dir(CAMPAIGN_DIR).size(), stored.empty() ? 0u : 1u);
        }
    }
    EXPECT_EQ(allocations, 4) << "the campaign's copy, its logic, its entry, its networks";
    for (const char* text :
         {"Could not malloc buffer to  hold campaign Descriptor\n",
          "campaign_logic_decode: Could not malloc buffer to  hold campaign\n",
          "from_buffer: Malloc failed\n", "from_buffer: Malloc failed for mcc mnc list\n",
          "from_buffer: Campaign Descriptor file create Failed\n"}) {
        EXPECT_THAT(logged, testing::HasSubstr(text));
    }
}

}  // namespace
