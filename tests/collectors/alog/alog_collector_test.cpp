// The log collector's thread with scripted log entries: its buffer, and what must not be lost. What
// it says and writes is told in tests/transcripts.
#include "collectors/alog/alog_collector.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "collectors/alog/alog_campaign.h"
#include "collectors/alog/alog_record.h"
#include "platform/clock.h"
#include "support/collector_phone.h"

namespace fs = std::filesystem;

namespace {

constexpr int64_t NOW_S = PLATFORM_TEST_REAL_MS / 1000;
constexpr char TITLE[] = "\nlogcat:\n";

// An entry of `size` bytes by its header, of which `held` are there.
std::string entry(uint8_t number, size_t size, size_t held = SIZE_MAX) {
    std::string bytes(std::min(size, held), static_cast<char>(number));
    const uint16_t lengths[2] = {static_cast<uint16_t>(size - 28), 28};
    memcpy(bytes.data(), lengths, sizeof lengths);
    return bytes;
}

// Entries that come one after the other, and their bytes.
std::string come(uint8_t number, size_t size, int count = 1) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        platform_test_script_log_entry(entry(number, size));
        all += entry(number, size);
    }
    return all;
}

struct AlogCollector : testing::Test, collector_phone {
    AlogCollector() : collector_phone(501) {}
    ~AlogCollector() override {
        stop();
        EXPECT_EQ(platform_test_log_readers(), 0u) << "a reader was not released";
    }

    void deliver(int id, int duration_s, int size = 0x100000, const std::string& third_line = "") {
        put_files({{row->dl_cfg_file, "clientid=501;size=" + std::to_string(size) +
                                          ";campaign_id=" + std::to_string(id) +
                                          ";campaign_duration_secs=" + std::to_string(duration_s) +
                                          ";num_alog_masks=0;\n" + third_line}});
    }
    // Stop and consent without a word in the log, which would be the next entry.
    void end() {
        optout_context context{.table = row.get(), .count = 1};
        optout_stop_rows(&context);
        join();
    }
    void set_consent(bool given) {
        given ? put_files({{row->up_dir + std::string("/")}}) : remove(row->up_dir);
        row->enabled = given;
    }
    void read_all() {
        launch();
        wait_blocked();
    }
    static void wait_blocked() { ASSERT_TRUE(platform_test_wait_log_reader(EVENT_LIMIT.count())); }
    std::string uploaded() const {
        std::string all;
        for (const std::string& payload : payloads()) all += payload;
        return all;
    }
    // Bytes that only differ in their number and place are no text to print.
    void expect_uploaded(const std::string& expected) const {
        const std::string found = uploaded();
        EXPECT_TRUE(found == expected) << found.size() << " bytes of " << expected.size();
    }
};

TEST_F(AlogCollector, BufferIsFlushedAtTheFirstByteWithoutRoomForALargestEntry) {
    deliver(7, 600);
    // 24 * 5120 + 3072 = 125952, which is a byte too little. Of a larger entry the rest is cut off.
    std::string expected = TITLE + come(1, 5120, 23);
    platform_test_script_log_entry(entry(2, 6000, 5120));
    expected += entry(2, 6000, 5120);
    expected += come(3, 3072);
    read_all();
    EXPECT_EQ(times_logged("flush out"), 0u);
    EXPECT_EQ(record(), TITLE);
    expected += come(5, 30);
    wait_log("alog_log_read: flush out buffer 125982");
    expected += come(6, 5120, 24);
    expected += come(7, 3073);
    wait_log("alog_log_read: flush out buffer 125953");
    wait_blocked();
    end();
    expect_uploaded(expected);
    EXPECT_EQ(times_logged("flush out"), 2u) << "the buffer was empty when it ended";
}

// The read of a log in which nothing is logged ends at a stop, with an entry that is no one's.
TEST_F(AlogCollector, StopWakesTheReaderAndHandsOverWhatThereIs) {
    deliver(7, 600);
    const std::string expected = TITLE + come(1, 100);
    read_all();
    end();
    expect_uploaded(expected);
}

TEST_F(AlogCollector, LogThatCannotBeReadIsTriedOnceASecondAndItsEndEndsTheThread) {
    deliver(7, 600);
    for (int i = 0; i < 3; ++i) platform_test_script_log_failure(-EIO);
    const std::string expected = TITLE + come(1, 100);
    platform_test_script_log_failure(0);
    launch();
    join();
    EXPECT_EQ(times_logged("failed to read logcat buffer: Input/output error\n"), 3u);
    EXPECT_EQ(times_logged("failed to read logcat buffer: No data available\n"), 1u);
    timespec now = {};
    platform_clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_EQ(now.tv_sec * 1000, PLATFORM_TEST_MONO_MS + 3000);
    expect_uploaded(expected);
    EXPECT_EQ(result, 0);
}

TEST_F(AlogCollector, LogThatCannotBeOpenedWaitsForTheNextFileWhateverThatSays) {
    deliver(7, 600);
    platform_test_fail_log_open(EACCES);
    launch();
    wait_log("failed to open logcat buffer, err:13\n");
    deliver(8, 600);
    wait_blocked();
    EXPECT_EQ(times_logged("Starting ALOG Campaign 7"), 1u);
}

TEST_F(AlogCollector, WithoutARecordOrItsOwnerThereIsNothingToDo) {
    timed_campaign campaign{.kind = &ALOG_CAMPAIGN, .row = row.get()};
    alog_record none;
    alog_record closed{.campaign = &campaign};
    unique_logger_list reader;
    for (alog_record* record : {static_cast<alog_record*>(nullptr), &none, &closed}) {
        EXPECT_EQ(alog_log_start(record, record == &closed ? nullptr : &reader), -EINVAL);
        EXPECT_EQ(alog_log_read(record, &reader), -EINVAL);
        EXPECT_EQ(alog_log_read(record, nullptr), -EINVAL);
        alog_log_end(record, &reader);
        alog_log_end(record, nullptr);
    }
}

TEST_F(AlogCollector, TitleThatCannotBeWrittenWaitsForTheNextFile) {
    // A record this small is handed over at the first write, which fails.
    fs::permissions(row->up_dir, fs::perms::owner_read | fs::perms::owner_exec);
    deliver(7, 600, 1);
    launch();
    wait_log("alog_log_start: failed to write file. cnt:0\n");
    wait_log("alog_collect_wait_for_config_update: \n");
    EXPECT_EQ(platform_test_log_readers(), 0u);
}

// More than the buffer holds comes meanwhile: were it kept, it would be flushed.
TEST_F(AlogCollector, WhatComesWithoutConsentReachesNoFile) {
    deliver(7, 600);
    std::string expected = TITLE + come(1, 100);
    read_all();
    set_consent(false);
    come(2, 5120, 40);
    wait_blocked();
    EXPECT_EQ(times_logged("flush out"), 0u);
    set_consent(true);
    expected += come(3, 60);
    wait_blocked();
    end();
    expect_uploaded(expected);
}

// The directory goes at once, the row's flag a moment later.
TEST_F(AlogCollector, RollOverWithoutADropboxLosesNothingThatWasCaptured) {
    deliver(7, 600, 20000);
    std::string expected = TITLE + come(1, 5120, 24);
    read_all();
    remove(row->up_dir);
    expected += come(2, 5120);
    come(3, 5120, 2);
    wait_blocked();
    EXPECT_FALSE(stop_flag_is_raised(row->stop));
    set_consent(true);
    expected += come(4, 100);
    wait_blocked();
    end();
    expect_uploaded(expected);
}

// The upload cannot be made beside the record, as on a full disk: that ends the thread, and the
// next start hands over what the record holds.
TEST_F(AlogCollector, RollOverThatFailsLeavesTheRecordToTheNextStart) {
    deliver(7, 600, 20000);
    read_all();
    std::string expected = TITLE + come(1, 5120, 25);
    wait_blocked();
    fs::permissions(own(), fs::perms::owner_read | fs::perms::owner_exec);
    come(2, 5120, 25);
    join();
    EXPECT_EQ(times_logged("alog_log_read: failed to write file. cnt:0\n"), 1u);
    fs::permissions(own(), fs::perms::owner_all);
    renew();
    deliver(8, 600, 20000);
    read_all();
    expected += TITLE + come(3, 1000);
    wait_blocked();
    end();
    expect_uploaded(expected);
}

TEST_F(AlogCollector, ClockThatJumpsEndsTheCampaignAtTheNextEntry) {
    deliver(7, 600);
    read_all();
    const std::pair<int64_t, bool> times_ms[] = {
        {-5000000, false}, {600000 - 501, false}, {600000 - 500, true}};
    for (const auto& [from_now_ms, ends] : times_ms) {
        platform_test_set_real_ms(NOW_S * 1000 + from_now_ms);
        come(1, 100);
        if (!ends) wait_blocked();
        if (ends) wait_log("Stopping ALOG Campaign 7 : Stop Time " + std::to_string(NOW_S + 600));
        EXPECT_EQ(times_logged("Stopping ALOG Campaign 7"), ends);
    }
}

TEST_F(AlogCollector, ThirdLineDecidesWhetherACampaignStarts) {
    struct {
        int active_before;
        const char* third_line;
        int active_after;
        int64_t stop_time_s;
    } const cases[] = {
        {-1, "", 7, NOW_S + 600},
        {5, "", 5, 1},
        {-1, "Active Campaign=9;Stop Time=123;", 9, 123},
        {5, "Active Campaign=9;Stop Time=123;", 9, 123},
        {5, "Active Campaign=-1;Stop Time=0;", 7, NOW_S + 600},
        {5, "Active Campaign=9;", 7, NOW_S + 600},
        {5, "\n", 7, NOW_S + 600},
        {7, "Active Campaign=-1;Stop Time=0;", 7, 1},
    };
    for (const auto& [before, third_line, after, stop_time_s] : cases) {
        timed_campaign campaign{.kind = &ALOG_CAMPAIGN, .row = row.get()};
        campaign.state.id = before;
        campaign.state.stop_time_s = before < 0 ? 0 : 1;
        row->state = &campaign;
        deliver(7, 600, 100, third_line);
        alog_cfg_handler(unique_file(fopen(row->dl_cfg_file, "re")).get(), row.get());
        EXPECT_EQ(campaign.state.id, after) << third_line;
        EXPECT_EQ(static_cast<int64_t>(campaign.state.stop_time_s), stop_time_s) << third_line;
        EXPECT_EQ(campaign.state.duration_s, after == 7 && before != 7 ? 600 : 0) << third_line;
        EXPECT_EQ(row->size, before == 7 ? 65536 : 100) << third_line;
        row->size = 65536;
    }
}

}  // namespace
