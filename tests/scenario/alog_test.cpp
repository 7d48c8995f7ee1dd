// The Android log collector in the whole daemon: from consent and a campaign's file to the upload,
// and stops while it waits for log entries.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "scenario/daemon_process.h"
#include "scenario/driven_scenario.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr int CLIENT = 501;
constexpr char MAIN_LOG[] = "/dev/log/main";
constexpr char TITLE[] = "\nlogcat:\n";

std::string config(int id, int duration_s, const std::string& third_line = "") {
    return "#from a test\nclientid=501;size=65536;campaign_id=" + std::to_string(id) +
           ";campaign_duration_secs=" + std::to_string(duration_s) + ";num_alog_masks=0;\n" +
           third_line;
}

// Puts an entry of somebody else into the log, longer than a reader hands over if need be.
std::string log_entry_of(uint32_t number, size_t size) {
    std::string bytes(size, static_cast<char>('a' + number % 26));
    const uint16_t lengths[2] = {static_cast<uint16_t>(size - 28), 28};
    const uint32_t header[6] = {4711, number, 1700000000, 5000000, 0, 1000};
    memcpy(bytes.data(), lengths, sizeof lengths);
    memcpy(bytes.data() + 4, header, sizeof header);
    bytes[28] = 4;
    bytes.replace(29, 4, std::string("app\0", 4));
    bytes.back() = '\0';
    return bytes;
}

void log_as_another(const std::string& bytes) {
    std::ofstream(MAIN_LOG, std::ios::binary | std::ios::app) << bytes << std::flush;
}

std::string text_of(const std::vector<uint8_t>& payload) {
    return {payload.begin(), payload.end()};
}

std::string delivered_at(const std::string& time, const std::string& text) {
    return "at " + time + " deliver down/501/alogstats.cfg <<END\n" + text + "\nEND\n";
}

TEST(AlogTest, CampaignsEntriesAreUploadedByteForByte) {
    phone_reset();
    for (uint32_t i = 1; i < 100; ++i) log_as_another(log_entry_of(i, 40 + 50 * i));
    log_as_another(log_entry_of(100, 5120) + log_entry_of(101, 5121) + log_entry_of(102, 65000));
    // The end is noticed at an entry.
    const driven_result run =
        play("mkdir data/vendor/vexa/down/501\nmkdir data/vendor/vexa/down/2\nat 1s optin 501\n" +
             delivered_at("2s", config(7, 60)) + "at 70s optin 2\nat 80s signal TERM\n");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.lines_with("Starting ALOG Campaign 7"), StartsWith("22:13:23.000"));
    EXPECT_THAT(run.lines_with("Stopping ALOG Campaign -1 : Stop Time 0"),
                StartsWith("22:14:30.000"));
    const std::vector<taken_upload> uploads = take_uploads(CLIENT);

    // The log as it is, each entry cut, up to the last one that was read.
    const std::string log = file_text(MAIN_LOG);
    std::string all = TITLE;
    for (size_t at = 0; at + 28 <= log.size();) {
        uint16_t payload_len = 0;
        memcpy(&payload_len, log.data() + at, sizeof payload_len);
        all += log.substr(at, std::min<size_t>(28u + payload_len, 5120));
        at += 28u + payload_len;
    }
    std::string uploaded;
    uint32_t seq = 1;
    for (const taken_upload& upload : uploads) {
        EXPECT_EQ(upload.file.header.client_id, 501u);
        EXPECT_EQ(upload.file.header.seq, seq);
        EXPECT_EQ(upload.name.substr(0, 10), "alogstats.");
        uploaded += text_of(upload.file.payload);
        seq += 2;
    }
    EXPECT_TRUE(all.starts_with(uploaded));
    EXPECT_GT(uploaded.size(), size_t{250000});
    EXPECT_THAT(uploaded, HasSubstr("Stopping ALOG Campaign 7"));
    EXPECT_EQ(file_text("/data/vendor/vexa/down/501/501-1.0-alogstats.cfg.req"),
              "clientID=501\nversion=1.0\nkey=alogstats.cfg\nrequestType=1\nrequestTimer=31536000\n"
              "connType=1\nconnTimer=360\n");
}

TEST(AlogTest, CampaignGoesOnAfterARestartUntilItsStopTime) {
    phone_reset();
    std::string script = "optin 501\n" + delivered_at("0s", config(7, 3600));
    for (int start = 0; start < 2; ++start) {
        fs::remove(MAIN_LOG);
        log_as_another(log_entry_of(1, 100));
        const driven_result run =
            play(script + "at 10s signal TERM\n", start == 0 ? "" : "real=2023-11-14T23:00:00Z");
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_THAT(run.lines_with("Starting ALOG Campaign 7"), HasSubstr("Stop Time 1700003600"));
        EXPECT_EQ(take_uploads(CLIENT).size(), 1u);
        script.clear();
    }
    fs::remove(MAIN_LOG);
    const driven_result run =
        play(delivered_at("5s", config(8, 60, "Active Campaign=-1;Stop Time=0;")) +
                 "at 10s signal TERM\n",
             "real=2060-01-01T00:00:00Z");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.lines_with("Waiting on /data/vendor/vexa/down/501/alogstats.cfg"),
                StartsWith("00:00:00.000"));
    EXPECT_THAT(run.lines_with("Starting ALOG Campaign 8"), StartsWith("00:00:06.000"));
}

TEST(AlogTest, DaemonThatCapturesItsOwnLogComesToRest) {
    phone_reset();
    for (uint32_t i = 0; i < 200; ++i) log_as_another(log_entry_of(i, 4000));
    const driven_result run = play("optin 501\n" + delivered_at("1s", config(7, 3600)) +
                                   "at 2s expect-quiet\nat 30s signal TERM\n");
    EXPECT_EQ(run.exit_code, 0);
    // 800000 bytes are six full buffers; what they log does not fill another before the end.
    const std::string flushes = run.lines_with("flush out buffer");
    EXPECT_EQ(std::ranges::count(flushes, '\n'), 7);
    EXPECT_THAT(flushes, testing::MatchesRegex("(22:13:21.000 [^\n]*\n){6}22:13:50.000 [^\n]*\n"));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int STOPS = 20;
#else
constexpr int STOPS = 150;
#endif

TEST(AlogTest, StopNeverHangsAroundTheBlockingRead) {
    std::mt19937 rnd(501);
    phone_reset();
    opt_in(CLIENT);
    deliver(CLIENT, "alogstats.cfg", config(7, 10800));
    double longest_ms = 0;
    for (int i = 0; i < STOPS; ++i) {
        SCOPED_TRACE(i);
        fs::remove(MAIN_LOG);
        daemon_process daemon({"VEXA_TEST_WINDOW_US=" + std::to_string(rnd() % 4 * 500)});
        const bool reading = rnd() % 4 != 0;
        if (reading) {
            ASSERT_TRUE(eventually_logged("alog_active_campaign_remaining_time"));
        }
        usleep(rnd() % 2000);
        const auto begin = std::chrono::steady_clock::now();
        constexpr int SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};
        if (rnd() % 3 == 0) daemon.signal(SIGNALS[rnd() % 3]);
        daemon.signal(SIGNALS[rnd() % 3]);
        const std::optional<int> status = daemon.wait(SCENARIO_LIMIT);
        const std::chrono::duration<double, std::milli> taken =
            std::chrono::steady_clock::now() - begin;
        ASSERT_TRUE(status) << "it hangs:\n" << phone_log();
        if (reading) {
            ASSERT_EQ(*status, 0);
            EXPECT_THAT(phone_log(), HasSubstr("Thread Stat: TRUE"));
        }
        for (const taken_upload& upload : take_uploads(CLIENT))
            EXPECT_THAT(text_of(upload.file.payload), Not(HasSubstr("Waking up")));
        longest_ms = std::max(longest_ms, taken.count());
    }
    printf("%d stops, the longest %.1f ms\n", STOPS, longest_ms);
}

}  // namespace
