// The pieces of the microdump collector: crash records and configuration.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/unique_handle.h"
#include "collectors/microdump/crash_record.h"
#include "collectors/microdump/microdump_config.h"
#include "support/files.h"
#include "support/log.h"

using namespace std::string_literals;

namespace {

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
    } const cases[] = {
        {"clientid=5;size=4000;maxuploadwaittime=60000", 4000, 60000},
        {"#comment\n\nclientid=5;size=5000000;maxuploadwaittime=432000001\n", 1048576, 432000000},
        {"clientid=5;size=-1;maxuploadwaittime=0", 0, 0},
        {"clientid=5;size=99999999999;maxuploadwaittime=-1", 1048576, 432000000},
        {"clientid=4;size=4000;maxuploadwaittime=60000", 7, 8},
        {"clientid=4294967301;size=4000;maxuploadwaittime=60000", 7, 8},
        {"clientid=5;size=4000;maxuploadwaittime=", 7, 8},
        {"clientid=5;size=4000\n", 7, 8},
        {"#comment\n", 7, 8},
        {"", 7, 8},
    };
    for (const auto& c : cases) {
        platform_test_clear_log();
        collector_info row{.size = 7, .max_upload_wait_time = 8, .hdr = {.client_id = 5}};
        put_files({{"/data/cfg", c.text}});
        const unique_file stream(fopen("/data/cfg", "r"));
        microdump_cfg_read_handler(stream.get(), &row);
        EXPECT_EQ(row.size, c.size) << c.text;
        EXPECT_EQ(row.max_upload_wait_time, c.wait_ms) << c.text;
        EXPECT_EQ(log_text().empty(), c.size != 7) << c.text;
        microdump_cfg_read_handler(nullptr, &row);
        EXPECT_EQ(row.size, c.size);
    }
}

}  // namespace
