// Decoding and storing campaigns with every single call failing once: each is taken whole or
// refused with its message, and no half-made file is seen. And what a large file of them costs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "campaign/campaign_desc.h"
#include "campaign/campaign_map.h"
#include "campaign/campaign_table.h"
#include "fault/fault.h"
#include "platform_test.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"
#include "support/owned_text.h"

namespace {

namespace fs = std::filesystem;

// Decodes a map and takes it over, once with each call of each function failing, and looks at what
// came of it.
void with_every_failure(
    const std::string& map,
    const std::function<void(bool decoded, bool failed, const campaign_table& table)>& look) {
    for (const char* name : fault_calls()) {
        bool failed = true;
        for (long n = 1; failed && !testing::Test::HasFailure(); n++) {
            SCOPED_TRACE(testing::Message() << "call " << n << " of " << name);
            fs::remove_all(CAMPAIGN_DIR);
            fs::create_directories(CAMPAIGN_DIR);
            campaign_table table;
            fault_arm(name, n);
            const bool decoded = campaignDecode(raw(map), map.size(), &table);
            campaign_table_clear();
            updateCampaignTableAndAct(table);
            failed = fault_disarm();
            look(decoded, failed, table);
        }
    }
}

TEST(CampaignFaultTest, EveryFailedCallIsAnswered) {
    // Campaign 1 of module 6 until 1900000000, one network, logic "x".
    const std::string entry =
        bytes("0801 1006 1a08 0802 1080e6fe8907 220d 0a06 1a04 08010801 1203 0a0178");
    with_every_failure(bytes("0a1d") + entry, [&](bool decoded, bool failed, const auto&) {
        EXPECT_TRUE(decoded || failed);
        const vexa_lock held(g_campaign.lock);
        const auto& live = g_campaign.state.table[6];
        EXPECT_TRUE(failed ? !live || live->mccMncList : live != nullptr);
        const std::string stored = file_text(std::string(CAMPAIGN_DIR) + "/6-1-1900000000.camp");
        EXPECT_TRUE(stored == entry || (stored.empty() && !decoded));
        EXPECT_EQ(list_dir(CAMPAIGN_DIR).size(), stored.empty() ? 0u : 1u);
    });
    for (const char* text :
         {"campaign_description_map_entry_decode: Could not malloc buffer to  hold campaign "
          "Descriptor\n",
          "campaign_logic_decode: Could not malloc buffer to  hold campaign\n",
          "campaign_desciption_entry_decode_from_buffer: Malloc failed\n",
          "campaign_desciption_entry_decode_from_buffer: Malloc failed for mcc mnc list\n",
          "Could not malloc for campaign entry for module 6",
          "Could not malloc for campaign mcc/mnc enablement for module 6"})
        EXPECT_EQ(platform_test_log_count(text), 1u) << text << log_text();
}

// A campaign of each module in turn, ids ascending.
std::string campaigns(uint32_t count, uint32_t modules) {
    std::string map;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t id = i + 0x4000;  // three bytes as a varint
        map += bytes("0a10 08");
        map += {static_cast<char>(0x80 | (id & 0x7F)), static_cast<char>(0x80 | (id >> 7 & 0x7F)),
                static_cast<char>(id >> 14), '\x10', static_cast<char>(i % modules + 1)};
        map += bytes("1a08 0802 1080e6fe8907");
    }
    return map;
}

TEST(CampaignFaultTest, LargeFileIsWrittenOnceAModule) {
    fs::create_directories(CAMPAIGN_DIR);
    const std::string map = campaigns(20000, 6);
    for (const char* call : {"fsync", "rename"}) {
        campaign_table table;
        fault_arm(call, -1);
        EXPECT_TRUE(campaignDecode(raw(map), map.size(), &table));
        EXPECT_EQ(fault_count(), 6) << call;
        (void)fault_disarm();
    }
}

// One that was put off for a later one is stored when that one is not reached.
TEST(CampaignFaultTest, WhatIsInTheTableIsOnTheDisk) {
    with_every_failure(campaigns(5, 2), [](bool, bool failed, const campaign_table& table) {
        std::vector<std::string> wanted;
        for (uint32_t module = 0; module < table.size(); ++module) {
            if (!campaign_is_there(table[module])) continue;
            wanted.push_back(
                fs::path(campaign_file_name(module, *table[module]).data()).filename());
        }
        EXPECT_EQ(list_dir(CAMPAIGN_DIR), wanted);
        EXPECT_GE(wanted.size(), failed ? 0u : 2u);
    });
}

}  // namespace
