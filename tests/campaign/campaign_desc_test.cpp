// Campaigns by bytes written out by hand, and nanopb's reading against libprotobuf's writing.
#include "campaign/campaign_desc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <random>

#include "campaign.pb.h"
#include "campaign/campaign_map.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"
#include "support/owned_text.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// A campaign as libprotobuf writes it.
std::string written(uint32_t module, uint64_t id, uint32_t expiry_type = 2, uint32_t networks = 0,
                    uint32_t codes = 0, size_t logic_length = 0) {
    vexa::CampaignDescriptionEntry entry;
    entry.set_campaignid(id);
    entry.set_moduleid(module);
    entry.mutable_expiry()->set_exptype(expiry_type);
    entry.mutable_expiry()->set_expvalue(1900000000);
    auto* inner = entry.mutable_enablementandlogic();
    for (uint32_t i = 0; i < networks; i++) {
        auto* network = inner->mutable_enablement()->add_mccmncenablement();
        network->set_mcc(200 + i);
        for (uint32_t j = 0; j < codes; j++) network->add_mnc(j * 1000 + i);
    }
    inner->mutable_logic()->set_logic(std::string(logic_length, 'x'));
    return entry.SerializeAsString();
}

std::string map_of(const std::vector<std::string>& entries) {
    std::string bytes;
    for (const std::string& entry : entries)
        bytes += "\x0a" + (static_cast<char>(entry.size()) + entry);
    return bytes;
}

struct CampaignDesc : testing::Test {
    CampaignDesc() { empty_dir(); }
    void empty_dir() {
        std::filesystem::remove_all(CAMPAIGN_DIR);
        std::filesystem::create_directories(CAMPAIGN_DIR);
        write_text_file(std::string(CAMPAIGN_DIR) + "/2-1-1900000000.camp", "live");
        table = {};
    }
    // What stands on the disk and in the table.
    std::vector<std::string> outcome() const {
        std::vector<std::string> all;
        for (const std::string& name : list_dir(CAMPAIGN_DIR)) {
            all.push_back(name + " " + stored(name));
        }
        for (const auto& slot : table) all.push_back(std::to_string(slot ? slot->campaignId : 0));
        return all;
    }
    bool decode(const std::string& bytes, bool write = true) {
        return campaign_desciption_entry_decode_from_buffer(raw(bytes), bytes.size(), &table,
                                                            write);
    }
    static std::string stored(const std::string& name) {
        return file_text(std::string(CAMPAIGN_DIR) + "/" + name);
    }

    campaign_table table;
};

std::string text_of(const CampaignEntry& entry) {
    std::string text =
        std::to_string(entry.campaignId) + " until " + std::to_string(entry.expiryValue) +
        " type " + std::to_string(entry.enablementType) + " at " + std::to_string(entry.timeSlices);
    for (uint32_t i = 0; i < entry.mccMncCount; ++i) {
        const MccMncEnablementRecord& network = entry.mccMncList[i];
        text += " on " + std::to_string(network.mcc);
        for (uint32_t j = 0; j < network.mncCount; ++j)
            text += "/" + std::to_string(network.mnc[j]);
    }
    return text;
}

// Fields out of order, codes packed and not, and a field that nobody knows.
TEST_F(CampaignDesc, HandWrittenCampaignIsReadAndStoredAsItCame) {
    const std::string entry = bytes(
        "22 2b 12 05 0a 03 61 00 62"               // logic "a\0b"
        "  0a 22 08 03 12 06 08 ff 81 fc f7 07"    // by time and network, slices 0x7eff00ff
        "    1a 0a 08 b6 02 12 05 01 9a 05 e8 07"  // 310: packed 1, 666, 1000
        "    1a 06 10 05 10 06 08 06 1a 02 08 09"  // 5 and 6 before their mcc; no mnc at all
        "7a 01 58 1a 08 08 02 10 80 e6 ff 89 07"   // unknown; expires at 1900016384
        "10 06 08 87 80 80 80 10");                // module 6, id 0x100000007
    ASSERT_TRUE(decode(entry)) << log_text();
    EXPECT_EQ(text_of(*table[6]),
              "4294967303 until 1900016384 type 3 at 2130641151 "
              "on 310/1/666/1000 on 6/5/6 on 9");
    EXPECT_EQ(table[6]->mccMncList[9].mcc, 0u) << "a block of ten";
    EXPECT_EQ(stored("6-7-1900016384.camp"), entry);
    owned_bytes logic;
    const std::string twice = entry + bytes("22 05 12 03 0a 01 7a");  // the last one counts
    for (const size_t less : {0, 1}) {
        const bool whole = less == 0;
        EXPECT_EQ(
            get_campaign_logic_from_campaign_description(raw(twice), twice.size() - less, &logic),
            whole);
        EXPECT_EQ(text(logic), whole ? "z" : "");
    }
    EXPECT_FALSE(get_campaign_logic_from_campaign_description(nullptr, 1, &logic));
    EXPECT_FALSE(get_campaign_logic_from_campaign_description(raw(twice), 1, nullptr));
    EXPECT_THAT(log_text(), HasSubstr("campaign_description: Null passed\nget_campaign_logic_from_"
                                      "campaign_description: Null passed\n"));
}

TEST_F(CampaignDesc, LimitsHoldToTheElement) {
    const std::tuple<std::string, const char*> rows[] = {
        {written(6, 1, 2, 10, 100, 32768), "Campaign Logic Length = 32768 "},
        {written(0, 1), "Campaign Logic Length = 0 "},
        {bytes("10 06 08 01 1a 02 08 02 22 04 12 02 0a 00"), "Campaign Logic Length = 0 "},
        {written(6, 1, 2, 11), "logic_decode: Exceeded Max number of MCC MNC Enablements\n"},
        {written(6, 1, 2, 1, 101), "list_decode: Exceeded Max number of MNC PER MCC Enablements\n"},
        {written(6, 1, 2, 0, 0, 32769),
         "length 32769\ncampaign_logic_decode: Too big campaign size\n"},
        // A packed list without an element, in a network of its own.
        {bytes("10 06 08 01 1a 02 08 02 22 08 0a 06 08 02 1a 02 12 00"),
         "campaign_mnc_list_decode: failed campaign_mcc_mnc_enablement_logic_decode: Submessage "
         "decode Failed\ncampaign_desciption_entry_decode_from_buffer: Submessage decode Failed\n"},
    };
    for (const auto& [entry, log] : rows) {
        table = {};
        platform_test_clear_log();
        EXPECT_EQ(decode(entry), std::string(log).starts_with("Campaign"));
        EXPECT_THAT(log_text(), HasSubstr(log));
        for (uint32_t i = 0; table[6] && table[6]->mccMncList && i < 10; i++)
            EXPECT_EQ(table[6]->mccMncList[i].mnc[99], 99000 + i);
    }
    EXPECT_FALSE(campaign_desciption_entry_decode_from_buffer(nullptr, 1, &table, false));
    EXPECT_FALSE(campaign_desciption_entry_decode_from_buffer(raw("x"), 1, nullptr, false));
    EXPECT_EQ(platform_test_log_count("Null pointer passed in function "
                                      "campaign_desciption_entry_decode_from_buffer\n"),
              2u);
}

TEST_F(CampaignDesc, TwinsHaveTheSameFileWhichDoesNotGoWithTheFirst) {
    EXPECT_TRUE(decode(written(6, 2)));
    const std::string twin = written(6, 2 + (1ull << 32));
    for (const bool write : {true, false}) {
        EXPECT_TRUE(decode(twin, write));
        EXPECT_EQ(stored("6-2-1900000000.camp"), twin);
    }
}

TEST_F(CampaignDesc, MapLeavesWhatStoringItsCampaignsOneByOneLeaves) {
    std::mt19937 random(5);
    const auto upto = [&](uint32_t last) { return static_cast<uint32_t>(random() % (last + 1)); };
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        std::vector<std::string> entries;
        for (uint32_t i = 0; i < 12; ++i) {
            const uint64_t twin = uint64_t{upto(1)} << 32;
            entries.push_back(written(upto(2), twin + 1 + upto(3), upto(15) ? 2 : 1));
        }
        if (upto(1)) entries[3 + upto(8)] = upto(1) ? written(7, 1) : bytes("08ff");
        empty_dir();
        bool whole = true;
        for (size_t i = 0; whole && i < entries.size(); ++i) whole = decode(entries[i]);
        const std::vector<std::string> one_by_one = outcome();
        empty_dir();
        const std::string map = map_of(entries);
        EXPECT_EQ(campaignDecode(raw(map), map.size(), &table), whole);
        EXPECT_EQ(outcome(), one_by_one) << "round " << round;
    }
}

TEST_F(CampaignDesc, StopComesBetweenTwoCampaigns) {
    const std::string map = map_of({written(1, 1), written(3, 3), written(4, 4)});
    const unique_fd first_file(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_GE(inotify_add_watch(first_file.get(), CAMPAIGN_DIR, IN_MOVED_TO), 0);
    stop_flag stop;
    stop.fd = first_file.get();  // as a signal's descriptor: readable from the first file on
    EXPECT_FALSE(campaignDecode(raw(map), map.size(), &table, true, &stop));
    EXPECT_THAT(list_dir(CAMPAIGN_DIR), ElementsAre("1-1-1900000000.camp", "2-1-1900000000.camp"));
    EXPECT_EQ(platform_test_log_count("Decoding failed: (none)\n"), 0u);
}

// A zero byte ends a message, and not the map.
TEST_F(CampaignDesc, MapsAreReadUpToTheirFirstDamage) {
    const std::string one = map_of({written(1, 9)}), two = map_of({written(2, 3)});
    const std::string zeros(3, '\0');
    const std::tuple<std::string, bool, bool, bool> rows[] = {
        {"", false, false, false},
        {one + zeros + two + '\0', true, true, true},
        {one + bytes("0a 00") + two, false, true, false},
        {one + bytes("0a 7f 08"), false, true, false},
        {one + bytes("0a 02 08 ff"), false, true, false},
        {one + two.substr(0, two.size() - 1), false, true, false},
        {one + bytes("12 01 78") + two, true, true, true},  // a field that nobody knows
    };
    for (const auto& [map, whole, has_one, has_two] : rows) {
        table = {};
        platform_test_clear_log();
        EXPECT_EQ(campaignDecode(raw(map), map.size(), &table), whole) << hex(map);
        EXPECT_EQ(table[1] != nullptr, has_one);
        EXPECT_EQ(table[2] != nullptr, has_two);
        EXPECT_EQ(platform_test_log_count("Decode Success\n"), whole ? 1u : 0u);
    }
    EXPECT_FALSE(campaignDecode(nullptr, 4, &table) || campaignDecode(raw(one), 4, nullptr));
}

}  // namespace
