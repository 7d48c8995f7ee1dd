// Campaigns by bytes written out by hand, and nanopb's reading against libprotobuf's writing.
#include "campaign/campaign_desc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "campaign/campaign_messages.h"
#include "campaign/mps_campaign_desc.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using vexa::CampaignDescriptionEntry;

const uint8_t* raw(const std::string& bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

bool decode_entry(const std::string& bytes, campaign_table* table, bool write = true) {
    return campaign_desciption_entry_decode_from_buffer(raw(bytes), bytes.size(), table, write);
}

bool decode_map(const std::string& bytes, campaign_table* table) {
    return campaignDecode(raw(bytes), bytes.size(), table);
}

std::string map_of(const std::vector<CampaignDescriptionEntry>& entries) {
    vexa::CampaignDescriptionMap map;
    for (const auto& entry : entries) *map.add_entry() = entry;
    return map.SerializeAsString();
}

std::string text(const owned_bytes& block) {
    return {reinterpret_cast<const char*>(block.bytes.get()), block.length};
}

std::string stored(const std::string& name) {
    return file_text(std::string(CAMPAIGN_DIR) + "/" + name);
}

class CampaignDesc : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove_all(CAMPAIGN_DIR);
        std::filesystem::create_directories(CAMPAIGN_DIR);
    }

    campaign_table table;
};

// Fields out of order, one network's codes packed and another's not, and a field that nobody knows.
TEST_F(CampaignDesc, HandWrittenCampaignIsReadAndStoredAsItCame) {
    const std::string entry = bytes(
        "22 2b"                                    // enablement and logic
        "  12 05 0a 03 61 00 62"                   //   logic "a\0b"
        "  0a 22 08 03"                            //   enablement: by time and network
        "    12 06 08 ff 81 fc f7 07"              //     slices 0x7ef f00ff
        "    1a 0a 08 b6 02 12 05 01 9a 05 e8 07"  // 310: packed 1, 666, 1000
        "    1a 06 10 05 10 06 08 06"              //     codes 5 and 6 in front of their country, 6
        "    1a 02 12 00"                          //     an empty packed list
        "7a 01 58"                                 // unknown
        "1a 08 08 02 10 80 e6 ff 89 07"            // expires at 1900016384... seconds
        "10 06 08 87 80 80 80 10");                // module 6, id 0x100000007
    ASSERT_TRUE(decode_entry(entry, &table)) << log_text();
    const CampaignEntry& c = *table[6];
    EXPECT_EQ(c.campaignId, 0x100000007u);
    EXPECT_EQ(c.expiryValue, 1900016384u);
    EXPECT_EQ(c.enablementType, 3u);
    EXPECT_EQ(c.timeSlices, 0x7EFF00FFu);
    EXPECT_EQ(c.running, 0);
    ASSERT_EQ(c.mccMncCount, 3u);
    EXPECT_EQ(c.mccMncList[0].mcc, 310u);
    EXPECT_THAT(std::vector(c.mccMncList[0].mnc, c.mccMncList[0].mnc + 4),
                ElementsAre(1, 666, 1000, 0));
    EXPECT_EQ(c.mccMncList[1].mcc, 6u);
    EXPECT_EQ(c.mccMncList[1].mncCount, 2u);
    EXPECT_EQ(c.mccMncList[2].mncCount, 0u);
    EXPECT_EQ(c.mccMncList[9].mcc, 0u);
    EXPECT_THAT(list_dir(CAMPAIGN_DIR), ElementsAre("6-7-1900016384.camp"));
    EXPECT_EQ(stored("6-7-1900016384.camp"), entry);
    EXPECT_THAT(log_text(), HasSubstr("index = 0 mcc = 310\nMNC 1\nMNC 666\nMNC 1000\n"));
    EXPECT_THAT(log_text(),
                HasSubstr("Campaign Logic Length = 3 campaignId = 4294967303, moduleId = 6, "
                          "ExpType = 2, ExpValue = 1900016384, enablementType = 3, "
                          "timeSlices = 2130641151\n"));
    owned_bytes logic;
    ASSERT_TRUE(get_campaign_logic_from_campaign_description(raw(entry), entry.size(), &logic));
    EXPECT_EQ(text(logic), std::string("a\0b", 3));
}

TEST_F(CampaignDesc, WhatLibprotobufWritesIsRead) {
    std::mt19937_64 random(1);
    for (int round = 0; round < 200; round++) {
        auto written = campaign_message(random() % 7, random(), random());
        enablement_of(&written)->set_enablementtype(random());
        enablement_of(&written)->mutable_timebasedenablement()->set_timeslices(random());
        for (uint64_t n = random() % 11; n > 0; n--) {
            add_network(&written, random(), static_cast<int>(random() % 101));
        }
        campaign_table read;
        ASSERT_TRUE(decode_entry(written.SerializeAsString(), &read, false));
        const auto& c = *read[written.moduleid()];
        EXPECT_EQ(c.campaignId, written.campaignid());
        EXPECT_EQ(c.expiryValue, written.expiry().expvalue());
        const auto& rules = written.enablementandlogic().enablement();
        EXPECT_EQ(c.enablementType, rules.enablementtype());
        EXPECT_EQ(c.timeSlices, rules.timebasedenablement().timeslices());
        ASSERT_EQ(c.mccMncCount, static_cast<uint32_t>(rules.mccmncenablement_size()));
        EXPECT_EQ(c.mccMncList == nullptr, c.mccMncCount == 0);
        for (uint32_t i = 0; i < c.mccMncCount; i++) {
            const auto& expected = rules.mccmncenablement(static_cast<int>(i));
            const auto& record = c.mccMncList[i];
            EXPECT_EQ(record.mcc, expected.mcc());
            EXPECT_TRUE(std::equal(record.mnc, record.mnc + record.mncCount, expected.mnc().begin(),
                                   expected.mnc().end()));
        }
    }
}

TEST_F(CampaignDesc, LimitsHoldToTheElement) {
    const struct {
        std::function<void(CampaignDescriptionEntry*)> change;
        const char* refused;  // null: accepted
    } cases[] = {
        {[](auto* c) {
             while (enablement_of(c)->mccmncenablement_size() < 10) add_network(c, 1, 0);
         },
         nullptr},
        {[](auto* c) {
             while (enablement_of(c)->mccmncenablement_size() < 11) add_network(c, 1, 0);
         },
         "campaign_mcc_mnc_enablement_logic_decode: Exceeded Max number of MCC MNC Enablements\n"},
        {[](auto* c) { add_network(c, 1, 100); }, nullptr},
        {[](auto* c) { add_network(c, 1, 101); },
         "campaign_mnc_list_decode: Exceeded Max number of MNC PER MCC Enablements\n"},
        {[](auto* c) { set_logic(c, std::string(32768, 'x')); }, nullptr},
        {[](auto* c) { set_logic(c, std::string(32769, 'x')); },
         "campaign_logic_decode: campaign logic length 32769\n"
         "campaign_logic_decode: Too big campaign size\n"},
        {[](auto* c) { c->set_moduleid(0); }, nullptr},
        {[](auto* c) { c->set_moduleid(7); },
         "campaign_desciption_entry_decode_from_buffer: Wrong Module Id passed 7\n"},
        {[](auto* c) { c->mutable_expiry()->set_exptype(3); },
         "campaign_desciption_entry_decode_from_buffer: Only UTC is supported for Expiry Time "
         "format 3 type is not supported\n"},
    };
    for (const auto& [change, refused] : cases) {
        auto message = campaign_message(6, 1);
        change(&message);
        platform_test_clear_log();
        campaign_table fresh;
        EXPECT_EQ(decode_entry(message.SerializeAsString(), &fresh), refused == nullptr);
        EXPECT_THAT(log_text(), HasSubstr(refused ? refused : "Campaign Logic Length = "));
    }
}

TEST_F(CampaignDesc, ExpiryOfAnotherKindIsRefusedAfterTheFileIsWritten) {
    auto message = campaign_message(6, 5);
    message.mutable_expiry()->set_exptype(1);
    EXPECT_FALSE(decode_entry(message.SerializeAsString(), &table));
    EXPECT_EQ(stored("6-5-1900000000.camp"), message.SerializeAsString());
    EXPECT_EQ(table[6]->campaignId, 5u);
    EXPECT_EQ(table[6]->expiryValue, 0u);
}

TEST_F(CampaignDesc, LaterCampaignOfAModuleWins) {
    const auto other = campaign_message(1, 9);
    EXPECT_TRUE(
        decode_map(map_of({campaign_message(6, 1), other, campaign_message(6, 2)}), &table));
    EXPECT_EQ(table[6]->campaignId, 2u);
    EXPECT_THAT(list_dir(CAMPAIGN_DIR), ElementsAre("1-9-1900000000.camp", "6-2-1900000000.camp"));

    // One that has the same file name does not take the file with it, written anew or not.
    const auto twin = campaign_message(6, 2 + (1ull << 32));
    for (const bool write : {true, false}) {
        EXPECT_TRUE(decode_entry(twin.SerializeAsString(), &table, write));
        EXPECT_EQ(stored("6-2-1900000000.camp"), twin.SerializeAsString());
    }
}

TEST_F(CampaignDesc, MapsAreRefusedFromTheirFirstDamageOn) {
    const auto good = campaign_message(1, 9);
    const std::string whole = map_of({good});
    const struct {
        std::string map;
        const char* log;
        bool first_stays;
    } cases[] = {
        {"", "Decoding failed: (none)\n", false},
        {whole + bytes("0a 00") + map_of({campaign_message(2, 3)}), "Decoding failed: ", true},
        {whole + map_of({campaign_message(7, 3)}), "Wrong Module Id passed 7\n", true},
        {whole + bytes("0a 7f 08"), "Decoding failed: ", true},
        {whole + bytes("0a 02 08 ff"), "_from_buffer: Submessage decode Failed\n", true},
    };
    for (const auto& [map, log, first_stays] : cases) {
        campaign_table fresh;
        platform_test_clear_log();
        EXPECT_FALSE(decode_map(map, &fresh));
        EXPECT_THAT(log_text(), HasSubstr(log));
        EXPECT_EQ(fresh[1] != nullptr, first_stays);
        EXPECT_EQ(fresh[2], nullptr);
    }
    platform_test_clear_log();
    EXPECT_FALSE(campaignDecode(nullptr, 4, &table));
    EXPECT_FALSE(campaignDecode(raw(whole), whole.size(), nullptr));
    EXPECT_EQ(platform_test_log_count("Null pointer passed in function campaignDecode\n"), 2u);
}

TEST_F(CampaignDesc, FileThatCannotBeWrittenRefusesTheCampaign) {
    std::filesystem::remove_all(CAMPAIGN_DIR);
    EXPECT_FALSE(decode_map(map_of({campaign_message(6, 1)}), &table));
    EXPECT_THAT(log_text(), HasSubstr("from_buffer: Campaign Descriptor file create Failed\n"));
}

TEST_F(CampaignDesc, FileHeadIsTheFirstTwoBytes) {
    const struct {
        std::string file;
        bool valid;
        size_t map_length;
    } cases[] = {
        {bytes("cd f1 00 0a 00"), true, 2},
        {bytes("cd f1 99"), true, 0},
        {bytes("cd f1"), true, 0},
        {bytes("cd f0 00 0a 00"), false, 0},
        {bytes("cd"), false, 0},
        {"", false, 0},
    };
    for (const auto& [file, valid, expected_length] : cases) {
        const uint8_t* map = nullptr;
        size_t length = 0;
        EXPECT_EQ(campaign_file_map("caller", raw(file), file.size(), &map, &length), valid);
        EXPECT_EQ(length, expected_length);
    }
    EXPECT_EQ(
        platform_test_log_count("caller: Campaign Descriptor file format unsupported 205 240\n"),
        1u);
}

TEST_F(CampaignDesc, RepeatedLogicIsTheLastOne) {
    auto message = campaign_message(6, 1);
    set_logic(&message, "first");
    auto second = message;
    set_logic(&second, "second");
    const std::string both = message.SerializeAsString() + second.SerializeAsString();
    owned_bytes logic;
    EXPECT_TRUE(get_campaign_logic_from_campaign_description(raw(both), both.size(), &logic));
    EXPECT_EQ(text(logic), "second");
    EXPECT_FALSE(get_campaign_logic_from_campaign_description(raw(both), both.size() - 1, &logic));
    EXPECT_EQ(logic.bytes, nullptr);
    EXPECT_FALSE(get_campaign_logic_from_campaign_description(nullptr, 1, &logic));
    EXPECT_EQ(
        platform_test_log_count("get_campaign_logic_from_campaign_description: Null passed\n"), 1u);
}

TEST_F(CampaignDesc, HandWrittenModemCampaignIsRead) {
    const std::string logic = bytes(
        "12 1c 09 0100000000000000"  // specs: collection logic id 1
        "  22 02 aabb 2a 00 30 09"   //   collection spec, an empty static spec, field 6
        "  42 01 01 42 02 0203"      //   LLL spec twice
        "  10 07 1a 00"              //   fields that are not used
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
    EXPECT_EQ(text(campaign.collection_spec), bytes("aabb"));
    EXPECT_EQ(text(campaign.lll_spec), bytes("0203"));
    EXPECT_EQ(campaign.static_spec.length, 0u);
    EXPECT_EQ(campaign.static_spec.bytes, nullptr);

    // Damaged: a campaign of zeros, and still a success.
    EXPECT_TRUE(mps_campaign_desc_decode_from_buffer(raw(logic), logic.size() - 1, &campaign));
    EXPECT_EQ(campaign.bsiBufferFetchIntSec, 0u);
    EXPECT_EQ(campaign.lll_spec.bytes, nullptr);
    EXPECT_THAT(log_text(), HasSubstr("MPS Decoding failed: "));
    EXPECT_FALSE(mps_campaign_desc_decode_from_buffer(nullptr, 1, &campaign));
    EXPECT_FALSE(mps_campaign_desc_decode_from_buffer(raw(logic), 0, &campaign));
}

}  // namespace
