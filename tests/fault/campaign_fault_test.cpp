// Decoding and storing campaigns with every single call failing once: a campaign is taken whole or
// refused with its message, and no half-made file is seen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "campaign/campaign_desc.h"
#include "campaign/campaign_messages.h"
#include "campaign/mps_campaign_desc.h"
#include "fault/fault.h"
#include "platform_test.h"
#include "support/files.h"
#include "support/log.h"

namespace {

std::string small_campaign() {
    vexa::CampaignDescriptionEntry message = campaign_message(6, 1);
    add_network(&message, 262, 3);
    vexa::MpsCampaignDescription logic;
    logic.mutable_specs()->set_collectionspec("spec");
    set_logic(&message, logic.SerializeAsString());
    return message.SerializeAsString();
}

struct outcome {
    campaign_table table;
    bool decoded = false, has_logic = false, has_spec = false;
};

void decode(const std::string& map, const std::string& entry, outcome* result) {
    result->decoded =
        campaignDecode(reinterpret_cast<const uint8_t*>(map.data()), map.size(), &result->table);
    owned_bytes logic;
    result->has_logic = get_campaign_logic_from_campaign_description(
        reinterpret_cast<const uint8_t*>(entry.data()), entry.size(), &logic);
    MpsCampaign campaign;
    mps_campaign_desc_decode_from_buffer(logic.bytes.get(), logic.length, &campaign);
    result->has_spec = campaign.collection_spec.length > 0;
}

TEST(CampaignFaultTest, EveryFailedCallIsAnswered) {
    const std::string entry = small_campaign();
    vexa::CampaignDescriptionMap message;
    message.add_entry()->ParseFromString(entry);
    const std::string map = message.SerializeAsString();
    const std::string file = std::string(CAMPAIGN_DIR) + "/6-1-1900000000.camp";
    std::string logged;
    for (const char* name : fault_calls()) {
        bool more = true;
        for (long n = 1; more && !testing::Test::HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << "call " << n << " of " << name);
            std::filesystem::remove_all(CAMPAIGN_DIR);
            std::filesystem::create_directories(CAMPAIGN_DIR);
            platform_test_clear_log();
            outcome result;
            fault_arm(name, n);
            decode(map, entry, &result);
            more = fault_disarm();
            logged += log_text();
            EXPECT_EQ(result.decoded && result.has_logic && result.has_spec, !more) << log_text();
            const std::string stored = file_text(file);
            EXPECT_TRUE(stored == entry || (stored.empty() && !result.decoded));
            EXPECT_LE(list_dir(CAMPAIGN_DIR).size(), 1u) << "something unfinished stays";
        }
    }
    for (const char* text :
         {"Could not malloc buffer to  hold campaign Descriptor\n",
          "campaign_logic_decode: Could not malloc buffer to  hold campaign\n",
          "from_buffer: Malloc failed\n", "from_buffer: Malloc failed for mcc mnc list\n",
          "from_buffer: Campaign Descriptor file create Failed\n",
          "mps_bytes_spec_decode: Could not malloc buffer to  hold spec\n"}) {
        EXPECT_THAT(logged, testing::HasSubstr(text));
    }
}

}  // namespace
