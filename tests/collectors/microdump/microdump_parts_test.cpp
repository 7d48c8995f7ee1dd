// The pieces of the microdump collector: crash records, configuration, the upload's clock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/unique_handle.h"
#include "collectors/microdump/crash_record.h"
#include "collectors/microdump/microdump_config.h"
#include "collectors/microdump/timeout_file.h"
#include "support/files.h"
#include "support/log.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::HasSubstr;

namespace {

constexpr char DIR[] = "/data/vendor/vexastats/5";
constexpr char CLOCK_FILE[] = "/data/vendor/vexastats/5/timeout_microdumpstats.txt";
constexpr char CLOCK_NAME[] = "timeout_microdumpstats.txt";

void use_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

// What a record says of a dump that comes in these chunks, behind the line with its time. The room
// behind each chunk holds no zero byte that could end it.
std::string text_of(const std::vector<std::string>& chunks) {
    crash_record record;
    memset(record.text, 'x', sizeof record.text);
    crash_record_begin(&record, "now");
    const size_t begin = record.len;
    for (const std::string& chunk : chunks) {
        memcpy(record.room(), chunk.data(), chunk.size());
        crash_record_add_chunk(&record, chunk.size());
    }
    return std::string(record.text, record.len).substr(begin);
}

TEST(CrashRecord, ChunkEndsAtItsFirstZeroOrItsLastByteAndNeverBehindIt) {
    struct {
        std::vector<std::string> chunks;
        std::string text;
    } const cases[] = {
        {{"whole line\n"}, "whole line\n"},
        {{"cut shor"}, "cut sho\n"},
        {{"x"}, "\n"},
        {{""}, ""},
        {{"\0"s}, "\n"},
        {{"first\0lost\n"s}, "first\n"},
        {{"one\n", "two\n", "", "three\n"}, "one\ntwo\nthree\n"},
        {{"one\0lost"s, "two\n"}, "one\ntwo\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(text_of(c.chunks), c.text);
}

TEST(CrashRecord, ChunkThatFillsTheBufferEndsAtItsVeryEnd) {
    crash_record record;
    crash_record_begin(&record, "2023-11-14 22:13:20 +0000");
    EXPECT_EQ(std::string(record.text, record.len),
              "--1522738393043\nCrash Time: 2023-11-14 22:13:20 +0000\n");
    const size_t room = record.room_len();
    EXPECT_EQ(room, 4410 - 54u);
    memset(record.room(), 'd', room);
    crash_record_add_chunk(&record, room);
    EXPECT_EQ(record.room_len(), 0u);
    EXPECT_EQ(std::string(record.text, record.len).substr(54), std::string(room - 1, 'd') + "\n");
}

TEST(CrashRecord, TimeIsLocalAndItsAbsenceIsStated) {
    char time[CRASH_TIME_SIZE];
    use_zone("NPT-5:45");
    get_crashtime(time);
    EXPECT_STREQ(time, "2023-11-15 03:58:20 +0545");
    use_zone("UTC");
    platform_test_set_real_ms(INT64_MAX / 2);  // a year of nine digits does not fit
    get_crashtime(time);
    EXPECT_STREQ(time, "Error in getting crashtime");
    EXPECT_EQ(log_text(), "failed to get crash time\n");
}

TEST(MicrodumpConfig, ValuesAreTakenWithinTheirBoundsOrNotAtAll) {
    struct {
        const char* text;
        int32_t size;
        uint64_t wait_ms;
        bool valid;
    } const cases[] = {
        {"clientid=5;size=4000;maxuploadwaittime=60000", 4000, 60000, true},
        {"#comment\n\nclientid=5;size=5000000;maxuploadwaittime=432000001\n", 1048576, 432000000,
         true},
        {"clientid=5;size=-1;maxuploadwaittime=0", 0, 0, true},
        {"clientid=5;size=99999999999;maxuploadwaittime=-1", 1048576, 432000000, true},
        {"clientid=4;size=4000;maxuploadwaittime=60000", 7, 8, false},
        {"clientid=4294967301;size=4000;maxuploadwaittime=60000", 7, 8, false},
        {"clientid=5;size=4000;maxuploadwaittime=", 7, 8, false},
        {"clientid=5;size=4000\n", 7, 8, false},
        {"#comment\n", 7, 8, false},
        {"", 7, 8, false},
    };
    for (const auto& c : cases) {
        platform_test_clear_log();
        collector_info row{.size = 7, .max_upload_wait_time = 8, .hdr = {.client_id = 5}};
        put_files({{"/data/cfg", c.text}});
        const unique_file stream(fopen("/data/cfg", "r"));
        microdump_cfg_read_handler(stream.get(), &row);
        EXPECT_EQ(row.size, c.size) << c.text;
        EXPECT_EQ(row.max_upload_wait_time, c.wait_ms) << c.text;
        EXPECT_EQ(log_text().starts_with("invalid 5 config file. re-create. err:"), !c.valid)
            << c.text;
    }
    collector_info row{.name = "microdump_collector", .size = 7, .hdr = {.client_id = 5}};
    microdump_cfg_read_handler(nullptr, &row);
    EXPECT_EQ(row.size, 7);
}

TEST(MicrodumpConfig, FileIsWrittenWithoutANewlineAtItsEnd) {
    collector_info row{.name = "microdump_collector",
                       .cfg_file = "/data/cfg",
                       .max_upload_wait_time = 432000000,
                       .hdr = {.client_id = 5}};
    EXPECT_EQ(microdump_cfg_update_handler(&row), 0);
    EXPECT_EQ(file_text("/data/cfg"),
              "#microdump_collector config file. Version: 1.2\n"
              "clientid=5;size=65536;maxuploadwaittime=432000000");
    row.cfg_file = "/data/missing/cfg";
    EXPECT_EQ(microdump_cfg_update_handler(&row), -EINVAL);
    EXPECT_EQ(log_text(), "failed to open microdump_collector cfg. err:2\n");
}

TEST(TimeoutFile, InvalidOrMissingOneIsReplacedOnlyOnRequest) {
    struct {
        const char* text;
        const char* logged;
    } const cases[] = {
        {nullptr, "failed to open existing timeout_microdumpstats.txt file. err:2\n"},
        {"", "failed to read timeout_microdumpstats.txt file. err:61\n"},
        {"time_started=", "invalid timeout_microdumpstats.txt file format. err:"},
        {"started=1700000000000", "invalid timeout_microdumpstats.txt file format. err:"},
    };
    for (const auto& c : cases) {
        fs::remove_all(DIR);
        fs::create_directories(DIR);
        if (c.text) put_files({{CLOCK_FILE, c.text}});
        timeout_file file{.dir = DIR, .name = CLOCK_NAME, .start_ms = 17};
        platform_test_clear_log();
        EXPECT_EQ(timeout_file_init(&file, false), -EINVAL);
        EXPECT_THAT(log_text(), HasSubstr(c.logged));
        EXPECT_EQ(file.start_ms, 17u);
        EXPECT_EQ(timeout_file_init(&file, true), 0);
        EXPECT_EQ(file.start_ms, 1700000000000u);
        EXPECT_EQ(file_text(CLOCK_FILE), "time_started=1700000000000");
        platform_test_clear_log();
        file.start_ms = 0;
        EXPECT_EQ(timeout_file_init(&file, false), 0);
        EXPECT_EQ(file.start_ms, 1700000000000u);
        EXPECT_EQ(log_text(), "Timeout read from old file: 1700000000000\n");
    }
}

TEST(TimeoutFile, FileThatCannotBeReplacedIsStated) {
    timeout_file file{.dir = DIR, .name = CLOCK_NAME, .start_ms = 17};
    fs::remove_all(DIR);
    EXPECT_EQ(timeout_file_init(&file, true), -EINVAL);
    EXPECT_EQ(log_text(), "") << "no directory, no word";
    EXPECT_EQ(timeout_file_write_handler(file), -EINVAL);
    EXPECT_EQ(log_text(), "failed to open timeout_microdumpstats.txt file. err:2\n");
    platform_test_clear_log();
    fs::create_directories(CLOCK_FILE);
    EXPECT_EQ(timeout_file_init(&file, true), -EINVAL);
    EXPECT_EQ(file.start_ms, 17u);
    EXPECT_THAT(log_text(), HasSubstr("failed to write timeout_microdumpstats.txt file. err:21\n"));
    fs::remove_all(DIR);
}

}  // namespace
