// The log collector's thread against the real framework, with scripted log entries.
#include "collectors/alog/alog_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "collectors/alog/alog_campaign.h"
#include "collectors/alog/alog_record.h"
#include "framework/row/optout.h"
#include "platform/clock.h"
#include "support/events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/501";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/501";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/501";
constexpr char LOCAL[] = "/data/vendor/vexastats/501/.alogstats.cfg";
constexpr char DOWNLOADED[] = "/data/vendor/vexa/down/501/alogstats.cfg";
constexpr int64_t NOW_S = PLATFORM_TEST_REAL_MS / 1000;
constexpr char TITLE[] = "\nlogcat:\n";

std::string config(int id, int duration_s, const std::string& third_line = "", int size = 65536) {
    return "#a comment\nclientid=501;size=" + std::to_string(size) +
           ";campaign_id=" + std::to_string(id) +
           ";campaign_duration_secs=" + std::to_string(duration_s) +
           ";num_alog_masks=1;alog_mask=0x3;\n" + third_line;
}

// An entry of `size` bytes by its header, of which `held` are there.
std::string entry(uint8_t number, size_t size, size_t held = SIZE_MAX) {
    std::string bytes(std::min(size, held), static_cast<char>(number));
    const uint16_t lengths[2] = {static_cast<uint16_t>(size - 28), 28};
    memcpy(bytes.data(), lengths, sizeof lengths);
    return bytes;
}

class AlogCollector : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::remove_all(dir);
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::create_directories(dir);
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
    }
    void TearDown() override {
        stop();
        EXPECT_EQ(platform_test_log_readers(), 0u) << "a reader was not released";
        if (row.stop.fd >= 0) close(row.stop.fd);
    }

    void start() {
        thread = std::thread([this] { alog_monitor(&row); });
    }
    void stop() {
        row.running = 1;
        optout_context context{.table = &row, .count = 1};
        optout_stop_rows(&context);
        if (thread.joinable()) thread.join();
    }

    // As after a start of the daemon in an empty phone.
    void restart() {
        TearDown();
        row.stop.raised = 0;
        row.stop.fd = -1;
        SetUp();
    }

    // Waits for the thread to end by itself.
    void join() {
        ASSERT_TRUE(platform_test_wait_log("ALOG monitor exit\n", EVENT_LIMIT.count()));
        thread.join();
    }
    // As the monitor does, with the directory that it goes by.
    void set_consent(bool given) {
        fs::remove_all(UP_DIR);
        if (given) fs::create_directories(UP_DIR);
        row.enabled = given;
    }
    static void wait_blocked() { ASSERT_TRUE(platform_test_wait_log_reader(EVENT_LIMIT.count())); }
    static void wait_log(const std::string& text) {
        ASSERT_TRUE(platform_test_wait_log(text, EVENT_LIMIT.count())) << text << "\n"
                                                                       << log_text();
    }

    // Has the collector read the downloaded file, as it does in its thread.
    void load() {
        row.state = &campaign;
        const unique_file file(fopen(DOWNLOADED, "re"));
        alog_cfg_handler(file.get(), &row);
    }

    // The payloads of all uploads, in the order of their names.
    static std::vector<std::string> payloads() {
        std::vector<std::string> found;
        for (const std::string& name : list_dir(UP_DIR)) {
            found.push_back(gunzip(file_text(UP_DIR + ("/" + name)).substr(53)));
        }
        return found;
    }

    collector_info row{.name = "alog_collector",
                       .up_dir = UP_DIR,
                       .down_dir = DOWN_DIR,
                       .cfg_file = LOCAL,
                       .dl_cfg_file = DOWNLOADED,
                       .hdr = {.client_id = 501},
                       .cfg_read_handler = alog_cfg_handler,
                       .cfg_update_handler = alog_cfg_update_handler};
    timed_campaign campaign{.kind = &ALOG_CAMPAIGN, .row = &row};  // of a test without the thread
    std::thread thread;
};

TEST_F(AlogCollector, CampaignRunsFromItsFileToTheUpload) {
    write_text_file(DOWNLOADED, config(7, 600));
    platform_test_script_log_entry(entry(1, 100));
    platform_test_script_log_entry(entry(2, 6000, 5120));
    start();
    wait_blocked();
    EXPECT_FALSE(fs::exists(DOWNLOADED));
    EXPECT_EQ(file_text(LOCAL),
              "#alog_collector config file. Version: 1.2\n"
              "clientid=501;size=65536;campaign_id=7;campaign_duration_secs=600;num_alog_masks=1;"
              "alog_mask=0x3;\nActive Campaign=7;Stop Time=" +
                  std::to_string(NOW_S + 600) + ";");
    platform_test_set_real_ms((NOW_S + 600) * 1000);
    platform_test_script_log_entry(entry(3, 50));
    wait_log("Stopping ALOG Campaign 7 : Stop Time " + std::to_string(NOW_S + 600));
    platform_test_script_log_entry(entry(4, 60));
    wait_log("Stopping ALOG Campaign -1 : Stop Time 0");
    wait_log("alog_collect_wait_for_config_update: \n");
    EXPECT_THAT(payloads(), ElementsAre(TITLE + entry(1, 100) + entry(2, 6000, 5120) +
                                        entry(3, 50) + entry(4, 60)));
    EXPECT_EQ(platform_test_log_readers(), 0u);
}

TEST_F(AlogCollector, BufferIsFlushedAtTheFirstByteWithoutRoomForALargestEntry) {
    ASSERT_EQ(ALOG_FLUSH_SIZE, 125953u);
    write_text_file(DOWNLOADED, config(7, 600, "", 0x100000));
    std::string expected = TITLE;
    const auto script = [&](const std::string& bytes) {
        expected += bytes;
        platform_test_script_log_entry(bytes);
    };
    // 24 * 5120 + 3072 = 125952, and one entry more.
    for (uint8_t i = 0; i < 24; ++i) script(entry(i, 5120));
    script(entry(24, 3072));
    start();
    wait_blocked();
    EXPECT_THAT(log_text(), Not(HasSubstr("flush out buffer")));
    script(entry(25, 100));
    wait_log("alog_log_read: flush out buffer 126052");
    wait_blocked();
    EXPECT_EQ(file_text(RECORD_DIR + std::string("/alogstats.tmp")).size() -
                  file_text(RECORD_DIR + std::string("/alogstats.tmp")).find('\n') - 1,
              expected.size());
    stop();
    EXPECT_THAT(payloads(), ElementsAre(expected)) << "the buffer was empty when it ended";
    EXPECT_THAT(log_text(), Not(HasSubstr("alog_log_end: flush")));
}

TEST_F(AlogCollector, EntriesWithoutACampaignsEndAreHandedOverOnAStop) {
    write_text_file(DOWNLOADED, config(7, 600));
    platform_test_script_log_entry(entry(1, 100));
    start();
    wait_blocked();
    stop();
    EXPECT_THAT(payloads(), ElementsAre(TITLE + entry(1, 100)));
    EXPECT_THAT(log_text(), HasSubstr("Waking up a blocked read of the log\n"));
    EXPECT_THAT(log_text(), HasSubstr("Thread Stat: TRUEalog_log_end: flush out buffer 100"));
}

TEST_F(AlogCollector, WithoutAnEntryThereIsNothingToHandOver) {
    write_text_file(DOWNLOADED, config(7, 600));
    start();
    wait_blocked();
    stop();
    EXPECT_TRUE(payloads().empty());
}

TEST_F(AlogCollector, ConfigurationWaitEndsOnAStopInEveryState) {
    struct {
        const char* state;
        const char* log;
        void (*prepare)();
    } const cases[] = {
        {"no campaign", "Waiting on /data/vendor/vexa/down/501/alogstats.cfg", [] {}},
        {"request failed", "alog_monitor_set_cfg_dload_req: dload request failed\n",
         [] { fs::create_directories(DOWN_DIR + std::string("/501-1.0-alogstats.cfg.req")); }},
        {"no record", "failed to open record file for alog collector\n",
         [] {
             fs::remove_all(RECORD_DIR);
             write_text_file(RECORD_DIR, "");
         }},
        {"no directory", "wait until /data/vendor/vexa/down/501 is ready\n",
         [] { fs::remove_all(DOWN_DIR); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        platform_test_clear_log();
        c.prepare();
        start();
        wait_log(c.log);
        stop();
        EXPECT_EQ(platform_test_log_count("ALOG monitor exit\n"), 1u);
        restart();
    }
}

TEST_F(AlogCollector, FailedRequestDoesNotSkipTheWaitForConsent) {
    row.enabled = 0;
    fs::create_directories(DOWN_DIR + std::string("/501-1.0-alogstats.cfg.req"));
    start();
    wait_log("alog_monitor_set_cfg_dload_req: dload request failed\n");
    write_text_file(DOWNLOADED, config(7, 600));
    optout_context context{.table = &row, .count = 1};
    row.running = 1;
    // Consent is withheld until the shutdown, and so is everything else.
    fs::remove_all(UP_DIR);
    optout_handle(&context, 1);
    join();
    EXPECT_THAT(log_text(), Not(HasSubstr("Checking for an active campaign")));
    EXPECT_TRUE(fs::exists(DOWNLOADED));
}

TEST_F(AlogCollector, FileThatCameInTheMeantimeIsNotMissed) {
    write_text_file(DOWNLOADED, config(7, 600));
    start();
    wait_blocked();
    // It comes while the campaign runs; the wait for a file begins only afterwards.
    write_text_file(DOWNLOADED, config(8, 600, "Active Campaign=-1;Stop Time=0;"));
    platform_test_set_real_ms((NOW_S + 600) * 1000);
    platform_test_script_log_entry(entry(1, 100));
    platform_test_script_log_entry(entry(2, 100));
    wait_log("Starting ALOG Campaign 8 : Stop Time " + std::to_string(NOW_S + 1201) +
             ", CurrTime " + std::to_string(NOW_S + 601));
}

TEST_F(AlogCollector, ReaderThatCannotBeReadIsTriedAgainOnceASecond) {
    write_text_file(DOWNLOADED, config(7, 600));
    for (int i = 0; i < 3; ++i) platform_test_script_log_failure(-EIO);
    platform_test_script_log_entry(entry(1, 100));
    start();
    wait_blocked();
    EXPECT_EQ(platform_test_log_count("failed to read logcat buffer: Input/output error\n"), 3u);
    timespec now = {};
    platform_clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_GE(now.tv_sec * 1000, PLATFORM_TEST_MONO_MS + 3000);
    stop();
    EXPECT_THAT(payloads(), ElementsAre(TITLE + entry(1, 100)));
}

TEST_F(AlogCollector, EndOfTheLogEndsTheThread) {
    write_text_file(DOWNLOADED, config(7, 600));
    platform_test_script_log_failure(0);
    start();
    join();
    EXPECT_THAT(log_text(), HasSubstr("failed to read logcat buffer: No data available\n"));
}

TEST_F(AlogCollector, RecordThatCannotBeWrittenEndsTheThreadOrTheStart) {
    struct {
        int size;  // a record this small is handed over at the first write, which fails
        const char* log;
        bool ends;
    } const cases[] = {
        {20000, "alog_log_read: failed to write file. cnt:0\n", true},
        {1, "alog_log_start: failed to write file. cnt:0\n", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        fs::permissions(UP_DIR, fs::perms::owner_read | fs::perms::owner_exec);
        write_text_file(DOWNLOADED, config(7, 600, "", c.size));
        for (uint8_t i = 0; i < 25; ++i) platform_test_script_log_entry(entry(i, 5120));
        start();
        wait_log(c.log);
        if (c.ends) {
            join();
        } else {
            wait_log("alog_collect_wait_for_config_update: \n");
        }
        EXPECT_EQ(platform_test_log_readers(), 0u);
        restart();
    }
}

TEST_F(AlogCollector, WhatComesWithoutConsentReachesNoFile) {
    for (const bool back_at_the_end : {true, false}) {
        SCOPED_TRACE(back_at_the_end);
        write_text_file(DOWNLOADED, config(7, 600, "", 0x100000));
        platform_test_script_log_entry(entry(1, 100));
        start();
        wait_blocked();
        set_consent(false);
        // More than the buffer holds: were they kept, they would be flushed.
        for (uint8_t i = 2; i < 40; ++i) platform_test_script_log_entry(entry(i, 5120));
        wait_blocked();
        EXPECT_THAT(log_text(), Not(HasSubstr("flush out buffer")));
        if (back_at_the_end) set_consent(true);
        platform_test_script_log_entry(entry(50, 60));
        wait_blocked();
        stop();
        if (back_at_the_end) {
            EXPECT_THAT(payloads(), ElementsAre(TITLE + entry(1, 100) + entry(50, 60)));
        } else {
            EXPECT_THAT(list_dir(UP_DIR), ElementsAre());
            EXPECT_THAT(list_dir(RECORD_DIR), ElementsAre(".alogstats.cfg"));
        }
        restart();
        platform_test_reset();
    }
}

// The directory goes at once, the row's flag a moment later.
TEST_F(AlogCollector, RollOverWithoutADropboxLosesNothingThatWasCaptured) {
    write_text_file(DOWNLOADED, config(7, 600, "", 20000));
    std::string expected = TITLE;
    for (uint8_t i = 0; i < 24; ++i) {
        expected += entry(i, 5120);
        platform_test_script_log_entry(entry(i, 5120));
    }
    start();
    wait_blocked();
    fs::remove_all(UP_DIR);
    expected += entry(24, 5120);
    for (uint8_t i = 24; i < 27; ++i) platform_test_script_log_entry(entry(i, 5120));
    wait_blocked();
    EXPECT_FALSE(stop_flag_is_raised(row.stop));
    fs::create_directories(UP_DIR);
    expected += entry(30, 100);
    platform_test_script_log_entry(entry(30, 100));
    wait_blocked();
    stop();
    std::string uploaded;
    for (const std::string& payload : payloads()) uploaded += payload;
    EXPECT_TRUE(uploaded == expected) << uploaded.size() << " bytes of " << expected.size();
}

// The upload cannot be made beside the record, as on a full disk: that ends the thread, and the
// next start hands over what the record holds.
TEST_F(AlogCollector, RollOverThatFailsLeavesTheRecordToTheNextStart) {
    const auto script = [](uint8_t fill, int count) {
        std::string all;
        for (int i = 0; i < count; ++i) {
            platform_test_script_log_entry(entry(fill, 5120));
            all += entry(fill, 5120);
        }
        return all;
    };
    write_text_file(DOWNLOADED, config(7, 600, "", 20000));
    start();
    wait_blocked();
    std::string expected = TITLE + script(1, 25);
    wait_blocked();
    fs::permissions(RECORD_DIR, fs::perms::owner_read | fs::perms::owner_exec);
    (void)script(2, 25);
    wait_log("alog_log_read: failed to write file. cnt:0\n");
    join();
    fs::permissions(RECORD_DIR, fs::perms::owner_all);
    row.stop.raised = 0;
    write_text_file(DOWNLOADED, config(8, 600, "", 20000));
    start();
    wait_blocked();
    expected += TITLE + script(3, 1);
    wait_blocked();
    stop();
    std::string uploaded;
    for (const std::string& payload : payloads()) uploaded += payload;
    EXPECT_TRUE(uploaded == expected) << uploaded.size() << " bytes of " << expected.size();
}

TEST_F(AlogCollector, FileThatIsBeingWrittenAsTheStopComesStays) {
    write_text_file(DOWNLOADED, config(7, 600));
    platform_test_fail_log_open(EACCES);
    start();
    wait_log("alog_collect_wait_for_config_update: \n");
    // Nothing ends the second in which a file gets whole but the stop.
    platform_test_set_clock(platform_test_clock::MANUAL);
    write_text_file(DOWNLOADED, "clientid=501;size=655");
    stop();
    EXPECT_EQ(file_text(DOWNLOADED), "clientid=501;size=655");
    EXPECT_THAT(log_text(), Not(HasSubstr("invalid 501 config file")));
}

TEST_F(AlogCollector, ReaderThatCannotBeOpenedWaitsForTheNextFile) {
    write_text_file(DOWNLOADED, config(7, 600));
    platform_test_fail_log_open(EACCES);
    start();
    wait_log("failed to open logcat buffer, err:13\n");
    // The campaign goes on with the next file, whatever that says.
    write_text_file(DOWNLOADED, config(8, 600));
    wait_blocked();
    EXPECT_THAT(log_text(), HasSubstr("Starting ALOG Campaign 7"));
}

TEST_F(AlogCollector, ClockThatJumpsEndsTheCampaignAtTheNextEntry) {
    write_text_file(DOWNLOADED, config(7, 600));
    platform_test_script_log_entry(entry(1, 100));
    start();
    wait_blocked();
    platform_test_set_real_ms((NOW_S - 5000) * 1000);
    platform_test_script_log_entry(entry(2, 100));
    wait_blocked();
    EXPECT_THAT(log_text(), Not(HasSubstr("Stopping ALOG")));
    platform_test_set_real_ms((NOW_S + 600) * 1000 - 501);
    platform_test_script_log_entry(entry(3, 100));
    wait_blocked();
    EXPECT_THAT(log_text(), Not(HasSubstr("Stopping ALOG"))) << "half a second is not there yet";
    platform_test_set_real_ms((NOW_S + 600) * 1000 - 500);
    platform_test_script_log_entry(entry(4, 100));
    wait_log("Stopping ALOG Campaign 7 : Stop Time " + std::to_string(NOW_S + 600));
}

// ---- The configuration file

TEST_F(AlogCollector, ThirdLineDecidesWhetherACampaignStarts) {
    struct {
        const char* what;
        int active_before;
        const char* third_line;
        int active_after;
        int64_t stop_time_s;
    } const cases[] = {
        {"none, none active", -1, "", 7, NOW_S + 600},
        {"none, one active", 5, "", 5, 1},
        {"one is active", -1, "Active Campaign=9;Stop Time=123;", 9, 123},
        {"one is active already", 5, "Active Campaign=9;Stop Time=123;", 9, 123},
        {"none is active", 5, "Active Campaign=-1;Stop Time=0;", 7, NOW_S + 600},
        {"cannot be read", 5, "Active Campaign=9;", 7, NOW_S + 600},
        {"a line without anything", 5, "\n", 7, NOW_S + 600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        campaign.state.id = c.active_before;
        campaign.state.stop_time_s = c.active_before < 0 ? 0 : 1;
        write_text_file(DOWNLOADED, config(7, 600, c.third_line));
        load();
        EXPECT_EQ(campaign.state.id, c.active_after);
        EXPECT_EQ(static_cast<int64_t>(campaign.state.stop_time_s), c.stop_time_s);
    }
}

TEST_F(AlogCollector, RunningCampaignsFileChangesNothing) {
    write_text_file(DOWNLOADED, config(7, 600));
    load();
    write_text_file(DOWNLOADED, config(7, 10, "Active Campaign=-1;Stop Time=0;", 100));
    platform_test_clear_log();
    load();
    EXPECT_EQ(log_text(), "alog_cfg_handler: \nalready active campaign id 7 \n");
    EXPECT_EQ(row.size, 65536);
    EXPECT_EQ(campaign.state.duration_s, 600);
}

TEST_F(AlogCollector, FilesThatAreNotForItAreRefusedWithAMessage) {
    for (const char* text :
         {"", "#only a comment\n\n", "clientid=501;size=1;campaign_id=7;\n",
          "clientid=4;size=1;campaign_id=7;campaign_duration_secs=6;num_alog_masks=0;\n",
          "clientid=501;size=1;campaign_id=7;campaign_duration_secs=6;num_diag_masks=0;\n"}) {
        SCOPED_TRACE(text);
        platform_test_clear_log();
        write_text_file(DOWNLOADED, text);
        errno = 0;
        load();
        EXPECT_EQ(log_text(), "alog_cfg_handler: \ninvalid 501 config file. re-create. err:0\n");
        EXPECT_EQ(campaign.state.id, NO_CAMPAIGN);
    }
}

TEST_F(AlogCollector, ValuesAreBroughtWithinTheirLimits) {
    write_text_file(DOWNLOADED,
                    "clientid=501;size=99999999;campaign_id=7;campaign_duration_secs=99999;"
                    "num_alog_masks=2;alog_mask=0xab;alog_mask=0x0;\n");
    load();
    EXPECT_EQ(row.size, 0x100000);
    EXPECT_EQ(log_text(),
              "alog_cfg_handler: \n"
              "Ret 14 Client Id 501 Size 99999999 Campaign ID 7 Duration 10800 Seconds "
              "NumAlogMasks 2\n"
              "Alog Mask[0]=0xab\nAlog Mask[1]=0x0\n"
              "alog_active_campaign_id -1alog_collect_stop_time " +
                  std::to_string(NOW_S + 10800));
}

// A second campaign needs the third line, since the local file brings the first one's id back.
TEST_F(AlogCollector, EndedCampaignComesBackWithTheLocalFile) {
    write_text_file(LOCAL, config(7, 600, "Active Campaign=7;Stop Time=100;"));
    write_text_file(DOWNLOADED, config(8, 600));
    start();
    wait_log("Waiting on " + std::string(DOWNLOADED));
    EXPECT_FALSE(fs::exists(DOWNLOADED));
    EXPECT_THAT(file_text(LOCAL), HasSubstr("campaign_id=7;"));
    write_text_file(DOWNLOADED, config(9, 600, "Active Campaign=-1;Stop Time=0;"));
    wait_blocked();
    EXPECT_THAT(file_text(LOCAL), HasSubstr("campaign_id=9;"));
}

TEST_F(AlogCollector, ExpiredCampaignIsReportedAndReadsNothing) {
    write_text_file(DOWNLOADED, config(7, 0));
    platform_test_script_log_entry(entry(1, 100));
    start();
    wait_log("Wrong cfg, alog_active_campaign_remaining_time = 0, ");
    wait_log("alog_collect_wait_for_config_update: \n");
    stop();
    EXPECT_TRUE(payloads().empty());
}

}  // namespace
