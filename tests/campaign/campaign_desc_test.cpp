// Campaigns by bytes written out by hand, and nanopb's reading against libprotobuf's writing.
#include "campaign/campaign_desc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/inotify.h>

#include <random>
#include <tuple>

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
    auto* rules = entry.mutable_enablementandlogic()->mutable_enablement();
    for (uint32_t i = 0; i < networks; i++) {
        auto* network = rules->add_mccmncenablement();
        network->set_mcc(200 + i);
        for (uint32_t j = 0; j < codes; j++) network->add_mnc(j * 1000 + i);
    }
    auto* logic = entry.mutable_enablementandlogic()->mutable_logic();
    logic->set_logic(std::string(logic_length, 'x'));
    return entry.SerializeAsString();
}

std::string map_of(const std::vector<std::string>& entries) {
    std::string bytes;
    for (const std::string& entry : entries) {
        if (entry.size() > 0x7F) ADD_FAILURE() << "too long for a length of one byte";
        bytes += std::string("\x0a") + static_cast<char>(entry.size()) + entry;
    }
    return bytes;
}

class CampaignDesc : public testing::Test {
  protected:
    CampaignDesc() { empty_dir(); }
    static void empty_dir() {
        std::filesystem::remove_all(CAMPAIGN_DIR);
        std::filesystem::create_directories(CAMPAIGN_DIR);
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
    const CampaignEntry& c = *table[6];
    EXPECT_EQ(c.timeSlices, 0x7EFF00FFu);
    ASSERT_EQ(c.mccMncCount, 3u);
    EXPECT_THAT(std::vector(c.mccMncList[0].mnc, c.mccMncList[0].mnc + 4),
                ElementsAre(1, 666, 1000, 0));
    EXPECT_EQ(c.mccMncList[1].mcc, 6u);
    EXPECT_EQ(c.mccMncList[2].mcc, 9u);
    EXPECT_EQ(c.mccMncList[2].mncCount + c.mccMncList[9].mcc, 0u);
    EXPECT_EQ(stored("6-7-1900016384.camp"), entry);
    EXPECT_THAT(log_text(),
                HasSubstr("Campaign Logic Length = 3 campaignId = 4294967303, moduleId = 6, "
                          "ExpType = 2, ExpValue = 1900016384, enablementType = 3, "
                          "timeSlices = 2130641151\n"));
    owned_bytes logic;
    const std::string twice = entry + bytes("22 05 12 03 0a 01 7a");  // the last one counts
    EXPECT_TRUE(get_campaign_logic_from_campaign_description(raw(twice), twice.size(), &logic));
    EXPECT_EQ(text(logic), "z");
    EXPECT_FALSE(
        get_campaign_logic_from_campaign_description(raw(twice), twice.size() - 1, &logic));
    EXPECT_EQ(logic.bytes, nullptr);
}

TEST_F(CampaignDesc, LimitsHoldToTheElement) {
    const std::tuple<std::string, const char*> rows[] = {
        {written(6, 1, 2, 10, 100, 32768), "Campaign Logic Length = 32768 "},
        {written(0, 1), "Campaign Logic Length = 0 "},
        {written(6, 1, 2, 11), "Exceeded Max number of MCC MNC Enablements\n"},
        {written(6, 1, 2, 1, 101), "Exceeded Max number of MNC PER MCC Enablements\n"},
        {written(6, 1, 2, 0, 0, 32769), "length 32769\ncampaign_logic_decode: Too big campaign"},
        // A packed list without an element, in a network of its own.
        {bytes("10 06 08 01 1a 02 08 02 22 08 0a 06 08 02 1a 02 12 00"),
         "campaign_mnc_list_decode: failed "},
        {written(7, 1), "_from_buffer: Wrong Module Id passed 7\n"},
        {written(6, 1, 3), "Expiry Time format 3 type is not supported\n"},
    };
    for (const auto& [entry, log] : rows) {
        table = {};
        platform_test_clear_log();
        EXPECT_EQ(decode(entry), std::string(log).starts_with("Campaign"));
        EXPECT_THAT(log_text(), HasSubstr(log));
        if (!table[6] || table[6]->mccMncCount == 0) continue;
        for (uint32_t i = 0; i < 10; i++) EXPECT_EQ(table[6]->mccMncList[i].mnc[99], 99000 + i);
    }
    // What was refused for its expiry only has its file, and the slot with an id.
    EXPECT_EQ(stored("6-1-1900000000.camp"), written(6, 1, 3));
    EXPECT_EQ(table[6]->campaignId + table[6]->expiryValue, 1u);
}

TEST_F(CampaignDesc, LaterCampaignOfAModuleWins) {
    for (const auto& entry : {written(6, 1), written(1, 9), written(6, 2)}) decode(entry);
    EXPECT_EQ(table[6]->campaignId, 2u);
    EXPECT_THAT(list_dir(CAMPAIGN_DIR), ElementsAre("1-9-1900000000.camp", "6-2-1900000000.camp"));
    // One that has the same file name does not take the file with it, written anew or not.
    const std::string twin = written(6, 2 + (1ull << 32));
    for (const bool write : {true, false}) {
        EXPECT_TRUE(decode(twin, write));
        EXPECT_EQ(stored("6-2-1900000000.camp"), twin);
    }
}

TEST_F(CampaignDesc, MapLeavesWhatStoringItsCampaignsOneByOneLeaves) {
    std::mt19937 random(5);
    const auto upto = [&](uint32_t last) { return static_cast<uint32_t>(random() % (last + 1)); };
    for (int round = 0; round < 500 && !HasFailure(); ++round) {
        std::vector<std::string> entries;
        for (uint32_t i = 0; i < 12; ++i) {
            const uint64_t twin = uint64_t{upto(1)} << 32;
            entries.push_back(written(upto(2), twin + 1 + upto(3), upto(15) ? 2 : 1));
        }
        if (upto(1)) entries[3 + upto(8)] = upto(1) ? written(7, 1) : bytes("08ff");
        const std::string live = "/2-1-1900000000.camp";  // stored before
        empty_dir();
        write_text_file(CAMPAIGN_DIR + live, "live");
        table = {};
        bool whole = true;
        for (size_t i = 0; whole && i < entries.size(); ++i) whole = decode(entries[i]);
        const std::vector<std::string> one_by_one = outcome();
        empty_dir();
        write_text_file(CAMPAIGN_DIR + live, "live");
        table = {};
        const std::string map = map_of(entries);
        EXPECT_EQ(campaignDecode(raw(map), map.size(), &table), whole);
        EXPECT_EQ(outcome(), one_by_one) << "round " << round;
    }
}

TEST_F(CampaignDesc, StopComesBetweenTwoCampaigns) {
    const std::string map = map_of({written(1, 1), written(2, 2), written(3, 3)});
    const unique_fd first_file(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_GE(inotify_add_watch(first_file.get(), CAMPAIGN_DIR, IN_MOVED_TO), 0);
    stop_flag stop;
    stop.fd = first_file.get();  // as a signal's descriptor: readable from the first file on
    EXPECT_FALSE(campaignDecode(raw(map), map.size(), &table, true, &stop));
    EXPECT_THAT(list_dir(CAMPAIGN_DIR), ElementsAre("1-1-1900000000.camp"));
    EXPECT_EQ(platform_test_log_count("Decoding failed: (none)\n"), 0u);
}

TEST_F(CampaignDesc, MapsAreRefusedFromTheirFirstDamageOn) {
    const std::string good = bytes("0a0e") + written(1, 9).substr(0, 14);
    const std::tuple<std::string, const char*> rows[] = {
        {"", "Decoding failed: (none)\n"},
        {good + bytes("0a 00") + bytes("0a0e") + written(2, 3).substr(0, 14), "Decoding failed: "},
        {good + bytes("0a 7f 08"), "Decoding failed: "},
        {good + bytes("0a 02 08 ff"), "_from_buffer: Submessage decode Failed\n"},
    };
    for (const auto& [map, log] : rows) {
        table = {};
        EXPECT_FALSE(campaignDecode(raw(map), map.size(), &table));
        EXPECT_THAT(log_text(), HasSubstr(log));
        EXPECT_EQ(table[1] != nullptr, !map.empty());
        EXPECT_EQ(table[2], nullptr);
        platform_test_clear_log();
    }
    EXPECT_FALSE(campaignDecode(nullptr, 4, &table) || campaignDecode(raw(good), 4, nullptr));
}

TEST_F(CampaignDesc, ZeroByteBetweenEntriesEndsAMessageAndNotTheMap) {
    const std::string map =
        map_of({written(1, 9)}) + std::string(3, '\0') + map_of({written(2, 3)}) + '\0';
    EXPECT_TRUE(campaignDecode(raw(map), map.size(), &table)) << log_text();
    ASSERT_TRUE(table[1] && table[2]);
    EXPECT_EQ(table[1]->campaignId * 10 + table[2]->campaignId, 93u);
    EXPECT_EQ(platform_test_log_count("Decode Success\n"), 1u);
}

}  // namespace
