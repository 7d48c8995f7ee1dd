// The daemon under clocks that start too early, are set late, jump, and change for the summer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "scenario/daemon_process.h"
#include "scenario/driven_scenario.h"
#include "scenario/uploads.h"

using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace {

constexpr int64_t JULY_2023_MS = 1688169600000;  // 2023-07-01T00:00:00Z

// An upload every half minute or so.
const std::string CPU = R"(
optin 2
deliver down/2/cpustats.cfg clientid=2;size=1500;interval=100;threshold=300000;notify=0
)";

TEST(ClockTest, StartsAfterTwentySecondsWhenTheClockStaysIn1970) {
    phone_reset();
    const driven_result run = play("at 30s signal TERM", "real=1970-01-01T00:00:10Z boot=5");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.lines_with("started"), StartsWith("00:00:30.000"));
}

TEST(ClockTest, StopInTheClockWaitEndsItAtOnce) {
    phone_reset();
    const driven_result run = play("at 5s signal TERM", "real=1970-01-01T00:00:10Z");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.lines_with("property_set"), StartsWith("00:00:10.000"));
    EXPECT_THAT(run.lines_with("vexastatsd stopped"), StartsWith("00:00:15.000"));
    EXPECT_TRUE(phone_log().ends_with("vexastatsd stopped\n"));
}

// The collector starts at 20 s.
TEST(ClockTest, RecordBegunIn1970HasTheRightTimeOnceTheClockIsSet) {
    phone_reset();
    const driven_result run =
        play(CPU + "at 25s clock real=2023-07-01T00:00:00Z\nat 1m signal TERM",
             "real=1970-01-01T00:00:10Z boot=5");
    EXPECT_EQ(run.exit_code, 0);
    const std::vector<taken_upload> uploads = take_uploads(2);
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].file.header.realtime_ms, JULY_2023_MS - 5000);
}

// A daemon that is kept busy by a clock that jumped does not get to the next line of its script.
TEST(ClockTest, JumpsOfTenYearsNeitherSpinNorStopTheSamples) {
    phone_reset();
    const driven_result run = play(CPU + R"(
at 1m clock real=2033-07-01T00:00:00Z
at 2m clock real=2013-07-01T00:00:00Z
at 3m clock real=2023-07-01T00:00:00Z
at 4m signal TERM
)",
                                   "real=2022-07-01T00:00:00Z");
    EXPECT_EQ(run.exit_code, 0);
    std::set<int64_t> years;
    for (const taken_upload& upload : take_uploads(2)) {
        EXPECT_LE(upload.cpu().samples.size(), 150u) << "as many as without a jump";
        years.insert(1970 + static_cast<int64_t>(upload.file.header.realtime_ms / 31556952000));
    }
    EXPECT_THAT(years, ElementsAre(2013, 2022, 2023, 2033));
}

TEST(ClockTest, SummerTimeChangesShowInHeadersAndSamples) {
    const struct {
        const char* before;
        int16_t to_min;
    } changes[] = {{"real=2023-03-26T00:59:50Z", 120}, {"real=2023-10-29T00:59:50Z", 60}};
    for (const auto& change : changes) {
        phone_reset();
        EXPECT_EQ(play(CPU + "at 1m signal TERM", change.before, {"TZ=Europe/Berlin"}).exit_code,
                  0);
        std::vector<int16_t> headers;
        std::vector<int16_t> samples;
        for (const taken_upload& upload : take_uploads(2)) {
            headers.push_back(upload.file.header.timezone_min);
            for (const cpu_record_sample& sample : upload.cpu().samples) {
                if (sample.timezone_min) samples.push_back(*sample.timezone_min);
            }
        }
        ASSERT_GE(headers.size(), 2u);
        EXPECT_EQ(headers[0], 180 - change.to_min);
        EXPECT_EQ(headers[1], change.to_min);
        EXPECT_THAT(samples, ElementsAre(change.to_min));
    }
}

}  // namespace
