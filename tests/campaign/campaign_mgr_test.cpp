// The campaign manager: what it takes over, and its thread.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "campaign.pb.h"
#include "campaign/campaign_mgr_fixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char CDF[] = "/data/vendor/vexa/down/101/cdf.dat";

std::string cdf(uint64_t id, uint32_t module = 6, uint64_t expiry = LATER,
                const std::string& logic = "logic") {
    vexa::CampaignDescriptionMap map;
    vexa::CampaignDescriptionEntry* entry = map.add_entry();
    entry->set_campaignid(id);
    entry->set_moduleid(module);
    entry->mutable_expiry()->set_exptype(2);
    entry->mutable_expiry()->set_expvalue(expiry);
    entry->mutable_enablementandlogic()->mutable_logic()->set_logic(logic);
    return std::string("\xCD\xF1\x01", 3) + map.SerializeAsString();
}

std::string stored(uint32_t module, uint64_t id, uint64_t expiry = LATER) {
    return campaign_file_name(module, id, expiry).data();
}

TEST_F(CampaignManager, CampaignOfTheSameIdStaysAndItsFileWithIt) {
    const uint64_t same_file = 7 + (uint64_t{1} << 32);  // as that of id 7
    for (const auto& [live, fresh, expiry, id_after, expiry_after, files] :
         std::vector<std::tuple<uint64_t, uint64_t, uint64_t, uint64_t, uint64_t,
                                std::vector<std::string>>>{
             {7, 7, LATER, 7, LATER, {stored(1, 7)}},
             {7, 7, LATER + 1, 7, LATER, {stored(1, 7), stored(1, 7, LATER + 1)}},
             {7, 7, 0, 7, 0, {stored(1, 7, 0)}},
             {7, 8, LATER, 8, LATER, {stored(1, 8)}},
             {7, same_file, LATER, same_file, LATER, {stored(1, 7)}},
         }) {
        SCOPED_TRACE(std::to_string(fresh) + " " + std::to_string(expiry));
        fs::remove_all(CAMPAIGN_DIR);
        put_files({{stored(1, live), "live"}, {stored(1, fresh, expiry), "fresh"}});
        {
            const vexa_lock lock(g_campaign.lock);
            g_campaign.state.table[1] = campaign(live);
        }
        campaign_table table;
        table[1] = campaign(fresh, expiry);
        updateCampaignTableAndAct(table);
        const vexa_lock lock(g_campaign.lock);
        EXPECT_EQ(g_campaign.state.table[1]->campaignId, id_after);
        EXPECT_EQ(g_campaign.state.table[1]->expiryValue, expiry_after);
        std::vector<std::string> names;
        for (const std::string& file : files) names.push_back(fs::path(file).filename());
        EXPECT_EQ(list_dir(CAMPAIGN_DIR), names);
    }
}

TEST_F(CampaignManager, ReplacedCampaignStopsWhateverItsModuleAndTakesLaterSameOnesFilesAlong) {
    put_files({{stored(2, 5), ""}, {stored(4, 9), ""}, {stored(4, 9, LATER + 1), ""}});
    {
        const vexa_lock lock(g_campaign.lock);
        g_campaign.state.table[2] = campaign(5, LATER, true);
        g_campaign.state.table[4] = campaign(9, LATER, true);
    }
    campaign_table table;
    table[2] = campaign(6);
    table[2]->mccMncCount = 2;
    table[2]->mccMncList = campaign_network_list_new();
    table[2]->mccMncList[0] = {.mcc = 262, .mncCount = 1, .mnc = {7}};
    table[2]->mccMncList[1] = {.mcc = 310, .mncCount = 1, .mnc = {8}};
    table[4] = campaign(9, LATER + 1);
    updateCampaignTableAndAct(table);
    EXPECT_EQ(platform_test_log_count(STOP), 1u);
    EXPECT_THAT(list_dir(CAMPAIGN_DIR),
                ElementsAre(fs::path(stored(4, 9, LATER + 1)).filename().string()));
    const vexa_lock lock(g_campaign.lock);
    const CampaignEntry& replaced = *g_campaign.state.table[2];
    EXPECT_EQ(replaced.running, 0);
    EXPECT_EQ(replaced.mccMncCount, 2u);
    EXPECT_EQ(replaced.mccMncList[0].mcc, 262u);
    EXPECT_EQ(replaced.mccMncList[1].mcc, 0u) << "only the first network is taken over";
    EXPECT_EQ(g_campaign.state.table[4]->running, 1);
}

TEST_F(CampaignManager, OnlyTheModemsCampaignStartsWithTheFileTheOthersAtTheNextCheck) {
    {
        const vexa_lock lock(g_campaign.lock);
        g_campaign.state.phone.default_sub = 1;
    }
    campaign_table table;
    table[1] = campaign(4);
    table[6] = campaign(5);
    updateCampaignTableAndAct(table);
    EXPECT_EQ(platform_test_log_count(START), 1u);
    EXPECT_EQ(platform_test_log_count(STOP), 0u);
    const auto running = [](uint32_t module) {
        const vexa_lock lock(g_campaign.lock);
        return g_campaign.state.table[module]->running;
    };
    EXPECT_EQ(running(1), 0);
    EXPECT_EQ(running(6), 1);
    campaign_check();
    EXPECT_EQ(running(1), 1);
}

TEST_F(CampaignManager, SignalEndsTheThreadWhereverItWaits) {
    const struct {
        const char* broken;  // removed before the start
        const char* waits;   // logged before the wait
        bool has_file;
    } PLACES[] = {
        {DOWN_DIR, "wait until /data/vendor/vexa/down/101 is ready\n", false},
        {"/dev/socket/vexa", "campaign_mgr_main: failed create service socket. err:2\n", false},
        {"/none", "campaign_mgr_main:Going into poll\n", false},
        {"/none", "CDF File Created waiting? 0\n", true},
    };
    for (const auto& place : PLACES) {
        SCOPED_TRACE(place.waits);
        SetUp();
        platform_test_clear_log();
        fs::remove_all(place.broken);
        start();
        if (place.has_file) {
            wait_log("campaign_mgr_main:Going into poll\n");
            put_files({{CDF, cdf(1)}});
        }
        wait_log(place.waits);
        wait_parked();
        stop();
        EXPECT_EQ(platform_test_log_count("Campaign Manager Main Thread Exit \n"), 1u);
    }
}

TEST_F(CampaignManager, FileThatComesWhileAnotherIsTakenInIsNotLost) {
    start();
    wait_log("campaign_mgr_main:Going into poll\n");
    constexpr uint64_t LAST = 300;
    for (uint64_t id = 1; id <= LAST; ++id) {
        put_files({{std::string(CDF) + ".part", cdf(id)}});
        fs::rename(std::string(CDF) + ".part", CDF);
        platform_test_advance_ms(500);
    }
    EXPECT_TRUE(wait_for_change({DOWN_DIR, CAMPAIGN_DIR}, [&] {
        platform_test_advance_ms(100);
        return fs::exists(stored(6, LAST)) && active_id() == LAST && !fs::exists(DONE);
    })) << active_id();
    EXPECT_THAT(list_dir(CAMPAIGN_DIR), ElementsAre(fs::path(stored(6, LAST)).filename().string()));
    EXPECT_THAT(log_text(), Not(HasSubstr("cdf.dat.done"))) << "its own doing is no news";
}

TEST_F(CampaignManager, WriterGetsThroughBeforeTheSecondLook) {
    const std::string whole = cdf(41);
    put_files({{DONE, whole.substr(0, whole.size() / 2)}});
    start();
    wait_parked();
    write_text_file(DONE, whole);
    platform_test_advance_ms(1000);
    wait_parked();
    EXPECT_TRUE(fs::exists(DONE)) << "it was written a moment ago";
    platform_test_advance_ms(1000);
    wait_log("campaign_mgr_main:Going into poll\n");
    EXPECT_EQ(active_id(), 41u);
    EXPECT_FALSE(fs::exists(DONE));
}

TEST_F(CampaignManager, WhatIsNoReadableFileIsInNobodysWay) {
    start();
    wait_log("campaign_mgr_main:Going into poll\n");
    const std::string aside = std::string(CDF) + ".part";
    for (const int kind : {S_IFDIR, S_IFLNK, S_IFIFO, S_IFREG}) {
        SCOPED_TRACE(kind);
        wait_parked();
        platform_test_clear_log();
        if (kind == S_IFDIR) fs::create_directory(aside);
        if (kind == S_IFLNK) fs::create_symlink("/nowhere", aside);
        if (kind == S_IFIFO) (void)mkfifo(aside.c_str(), 0600);
        if (kind == S_IFREG) put_files({{aside, std::string((1 << 20) + 1, 'x')}});  // too large
        fs::rename(aside, CDF);
        wait_log("CDF File Created waiting? 0\n");
        wait_parked();
        platform_test_advance_ms(1000);
        wait_log("Failed Reading CDF File /data/vendor/vexa/down/101/cdf.dat!! Panic");
        wait_parked();
        EXPECT_EQ(fs::is_directory(CDF), kind == S_IFDIR) << "only a directory stays";
        EXPECT_FALSE(fs::exists(fs::symlink_status(DONE)));
        fs::remove(CDF);
    }
    put_files({{aside, cdf(5)}});
    fs::rename(aside, CDF);
    pass_until_active(5);
    EXPECT_FALSE(fs::exists(DONE));
}

// The watch is tried again beside everything else: socket, signal and checks never wait for it.
TEST_F(CampaignManager, ServesItsSocketAndItsChecksWhileTheFileCannotBeWatched) {
    for (const bool gone : {false, true}) {
        SCOPED_TRACE(gone ? "no directory" : "a directory in place of the file");
        SetUp();
        platform_test_clear_log();
        if (!gone) fs::create_directory(CDF);
        start();
        wait_log("campaign_mgr_main:Going into poll\n");
        const unique_fd holder(open(DOWN_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (gone) fs::remove_all(DOWN_DIR);
        wait_log(gone ? "campaign_mgr_main: failed inotify_add_watch. err:2\n"
                      : "campaign_mgr_main: File not a regular file \n");
        say(SUB_1);
        EXPECT_EQ(phone().default_sub, 1u);
        campaign_table table;
        table[6] = campaign(5);
        updateCampaignTableAndAct(table);
        say(message(1, 1, "\1"));
        EXPECT_EQ(platform_test_log_count(STOP), 1u) << "roaming stops it";
        fs::remove_all(DOWN_DIR);
        put_files({{CDF, cdf(8)}});
        pass_until_active(8);
        stop();
    }
}

TEST_F(CampaignManager, FileLeftByAKillIsTakenInAndStoredOnesComeBack) {
    put_files({{DONE, cdf(41)}, {CDF, cdf(42, 1)}});
    start();
    wait_parked();
    platform_test_advance_ms(1000);
    wait_log("campaign_mgr_main:Going into poll\n");
    EXPECT_EQ(active_id(6), 41u);
    EXPECT_EQ(active_id(1), 42u);
    EXPECT_THAT(list_dir(DOWN_DIR), ElementsAre("cdf.dat"));  // read right away, kept
    stop();
    fs::remove(CDF);
    start();
    wait_parked();
    EXPECT_EQ(active_id(6), 41u);
    EXPECT_EQ(active_id(1), 42u);
    owned_bytes logic;
    uint32_t id = 0;
    campaign_mgr_get_campaign(6, &logic, &id);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(logic.bytes.get()), logic.length), "logic");
}

TEST_F(CampaignManager, StopInTheMidstOfALargeFileLeavesItForTheNextStart) {
    constexpr uint64_t COUNT = 20000;
    std::string file = cdf(1, 1);
    for (uint64_t id = 1; id <= COUNT; ++id) file += cdf(id, 6).substr(3);
    put_files({{DONE, file}});
    start();
    wait_parked();
    platform_test_advance_ms(1000);
    ASSERT_TRUE(wait_for_file(stored(1, 1)));
    stop();
    EXPECT_TRUE(fs::exists(DONE) || fs::exists(stored(6, COUNT)));
    platform_test_clear_log();
    start();
    wait_parked();
    platform_test_advance_ms(1000);
    wait_log("campaign_mgr_main:Going into poll\n");
    EXPECT_EQ(active_id(6), COUNT);
    EXPECT_FALSE(fs::exists(DONE));
}

TEST_F(CampaignManager, CampaignThatExpiresAsItComesDoesNotMakeTheThreadSpin) {
    put_files({{CDF, cdf(1, 1, NOW_S)}});
    start();
    wait_parked();
    const size_t polls = platform_test_log_count("campaign_mgr_main:Going into poll\n");
    EXPECT_LE(polls, 2u);
    EXPECT_EQ(active_id(1), 0u) << "the check has not run";
}

// Ten seconds for good, once an expiry was met: but only the checks that can change anything.
TEST_F(CampaignManager, WhatHasExpiredCostsNoWakeUps) {
    const struct {
        uint64_t expiry;  // of another campaign that is there; 0: there is none
        uint32_t type;
        size_t polls;  // in an hour and 50 minutes from 22:13:20 on
    } rows[] = {{0, 0, 0}, {NOW_S + 605, 0, 1}, {NOW_S + 86400, 1, 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expiry);
        platform_test_reset();
        SetUp();
        start();
        wait_log("campaign_mgr_main:Going into poll\n");
        campaign_table table;
        table[1] = campaign(1, NOW_S - 1);
        if (row.expiry) {
            table[2] = campaign(2, row.expiry);
            table[2]->enablementType = row.type;
        }
        updateCampaignTableAndAct(table);
        put_files({{std::string(DOWN_DIR) + "/other", ""}});  // a wake-up, to take the time-out
        wait_log("Created other cdf.dat 16\n");
        wait_parked();
        platform_test_advance_ms(10000);
        wait_parked();
        EXPECT_EQ(active_id(1), 0u);
        platform_test_clear_log();
        for (int i = 0; i < 660; ++i) {
            platform_test_advance_ms(10000);
            wait_parked();
        }
        EXPECT_EQ(platform_test_log_count("campaign_mgr_main:Going into poll\n"), row.polls);
        stop();
    }
}

}  // namespace
