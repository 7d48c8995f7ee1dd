// Campaigns by bytes written out by hand, and nanopb's reading against libprotobuf's writing.
#include "campaign/campaign_desc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <random>
#include <sstream>

#include "campaign.pb.h"
#include "campaign/campaign_map.h"
#include "support/dialogue.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"
#include "support/owned_text.h"

namespace {

using testing::ElementsAre;

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
    // How many of them are taken.
    int null_arguments() {
        owned_bytes logic;
        return campaignDecode(nullptr, 4, &table) + campaignDecode(raw("four"), 4, nullptr) +
               campaign_desciption_entry_decode_from_buffer(nullptr, 1, &table, false) +
               campaign_desciption_entry_decode_from_buffer(raw("x"), 1, nullptr, false) +
               get_campaign_logic_from_campaign_description(nullptr, 1, &logic) +
               get_campaign_logic_from_campaign_description(raw("x"), 1, nullptr);
    }
    static std::string stored(const std::string& name) {
        return file_text(std::string(CAMPAIGN_DIR) + "/" + name);
    }

    campaign_table table;
};

// What is asked is done, and answered by the result, the table's campaigns and the errors.
std::string text_of(uint32_t module, const CampaignEntry& entry) {
    std::ostringstream text;
    text << "  " << module << ": " << entry.campaignId << " until " << entry.expiryValue << " type "
         << entry.enablementType << " at " << entry.timeSlices;
    for (uint32_t i = 0; i < entry.mccMncCount; ++i) {
        const MccMncEnablementRecord& network = entry.mccMncList[i];
        text << " on " << network.mcc;
        for (uint32_t j = 0; j<network.mncCount; j += network.mncCount> 9 ? 99 : 1)
            text << "/" << network.mnc[j];
    }
    return text.str() + "\n";
}

std::string logic_text(const std::string& entry) {
    owned_bytes logic;
    const bool whole =
        get_campaign_logic_from_campaign_description(raw(entry), entry.size(), &logic);
    return whole ? text(logic) + "\n" : "refused\n";
}

TEST_F(CampaignDesc, Dialogue) {
    expect_dialogue("campaign/descriptions", [this](const std::string& question) {
        std::ostringstream all;
        for (const auto& line : words_of(question)) {
            std::string digits;
            for (size_t i = 1; i < line.size(); ++i) digits += line[i];
            const auto number = [&](size_t i) {
                return static_cast<uint32_t>(std::stoul(line[i]));
            };
            platform_test_clear_log();
            if (line[0] == "new") empty_dir();
            if (line[0] == "logic") all << logic_text(bytes(digits));
            if (line[0] == "files")
                for (const std::string& name : list_dir(CAMPAIGN_DIR))
                    all << name << " " << hex(stored(name)) << "\n";
            const std::string data =
                line[0] == "large" ? written(6, 1, 2, number(1), number(2), number(3))
                : line[0] == "entry" || line[0] == "load" || line[0] == "map" ? bytes(digits)
                                                                              : "";
            if (line[0] == "map")
                all << campaignDecode(raw(data), data.size(), &table) << "\n";
            else if (!data.empty())
                all << decode(data, line[0] != "load") << "\n";
            else if (line[0] != "null")
                continue;
            if (line[0] == "null") all << null_arguments() << "\n";
            for (uint32_t module = 0; module < CAMPAIGN_MODULES; ++module)
                if (table[module]) all << text_of(module, *table[module]);
            size_t seen = 0;
            std::istringstream log(log_lines(&seen));
            for (std::string text; std::getline(log, text);)
                if (text[0] == 'E') all << "  " << text << "\n";
        }
        return all.str();
    });
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

}  // namespace
