// The microdump collector in the whole daemon: from consent and a crash to the upload.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "base/unique_handle.h"
#include "microdump_record.h"
#include "scenario/daemon_process.h"
#include "scenario/driven_scenario.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

constexpr char DEVICE[] = "/dev/ramdump_microdump_modem";
constexpr char CLOCK_FILE[] = "/data/vendor/vexastats/5/timeout_microdumpstats.txt";
constexpr char JULY[] = "real=2023-07-01T10:00:00Z";
const std::string PREPARED = "optin 5\nmkdir data/vendor/vexa/down/5\n";

// A line at which something crashes: it opens the device, writes and leaves.
std::string crash_at(const std::string& time, const std::string& text) {
    return "at " + time + " write " + DEVICE + " <<END\n" + text + "\nEND\n";
}

// Holds the device open as a crash that is not over yet.
unique_fd open_device() {
    return unique_fd(open(DEVICE, O_RDWR | O_CLOEXEC | O_NONBLOCK));
}

std::vector<microdump> dumps_of(const std::vector<taken_upload>& uploads) {
    EXPECT_EQ(uploads.size(), 1u);
    if (uploads.empty()) return {};
    return microdump_record_decode(uploads[0].file.payload).dumps;
}

std::vector<std::string> texts(const std::vector<taken_upload>& uploads) {
    std::vector<std::string> all;
    for (const microdump& dump : dumps_of(uploads)) all.push_back(dump.text);
    return all;
}

// Each ends a minute after its last piece. Of a piece the last byte becomes the end of a line.
TEST(MicrodumpScenario, CrashesOfEverySizeArriveWithTheirTimes) {
    phone_reset();
    put_files({{SCRIPT_DIR + std::string("in"), "in "},
               {SCRIPT_DIR + std::string("big"), std::string(60000, 'x')}});
    const unique_fd writer = open_device();
    const driven_result run = play(PREPARED +
                                       "deliver down/5/microdumpstats.cfg "
                                       "clientid=5;size=65536;maxuploadwaittime=600000\n" +
                                       crash_at("10s", "in one piece") + "at 2m write " + DEVICE +
                                       " < in\n" + crash_at("2m30s", "two pieces") +
                                       "at 4m write " + DEVICE + " < big\nat 11m signal TERM\n",
                                   JULY, {"TZ=Europe/Berlin"});
    EXPECT_EQ(run.exit_code, 0);
    const std::vector<taken_upload> uploads = take_uploads(5);
    const auto dumps = dumps_of(uploads);
    ASSERT_EQ(dumps.size(), 3u);
    EXPECT_THAT(uploads[0].name, StartsWith("modem_microdumpstats."));
    EXPECT_EQ(uploads[0].file.header.data_type, 2);
    EXPECT_EQ(dumps[0].crash_time, "2023-07-01 12:00:10 +0200");
    EXPECT_EQ(dumps[1].crash_time, "2023-07-01 12:02:00 +0200");
    EXPECT_EQ(dumps[2].crash_time, "2023-07-01 12:04:00 +0200");
    EXPECT_EQ(dumps[0].text, "in one piece\n");
    EXPECT_EQ(dumps[1].text, "in\ntwo pieces\n");
    EXPECT_EQ(dumps[2].text, std::string(4410 - 54 - 1, 'x') + "\n");
    EXPECT_FALSE(fs::exists(std::string(DOWN_DIR) + "/5/microdumpstats.cfg"));
    EXPECT_EQ(file_text(std::string(STATS_DIR) + "/5/.microdumpstats.cfg"),
              "#microdump_collector config file. Version: 1.2\n"
              "clientid=5;size=65536;maxuploadwaittime=600000");
}

TEST(MicrodumpScenario, RestartResumesTheRecordAndItsClock) {
    phone_reset();
    EXPECT_EQ(play(PREPARED + crash_at("10s", "first run"), JULY).exit_code, 0);
    const std::string clock = file_text(CLOCK_FILE);
    EXPECT_EQ(play(crash_at("10s", "second run"), "real=2023-07-01T10:01:00Z").exit_code, 0);
    EXPECT_EQ(file_text(CLOCK_FILE), clock);
    EXPECT_THAT(take_uploads(5), IsEmpty());
    EXPECT_EQ(play("at 1s signal TERM", "real=2023-07-06T10:00:10Z").exit_code, 0);
    EXPECT_THAT(texts(take_uploads(5)), ElementsAre("first run\n", "second run\n"));
    EXPECT_NE(file_text(CLOCK_FILE), clock);
}

TEST(MicrodumpScenario, ClockSetBackHandsTheRecordOffAtTheNextDump) {
    phone_reset();
    const driven_result run =
        play(PREPARED + crash_at("10s", "before") + "at 20s clock real=2013-07-01T10:00:00Z\n" +
                 crash_at("30s", "after") + "at 1m signal TERM\n",
             JULY);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(texts(take_uploads(5)), ElementsAre("before\n", "after\n"));
}

TEST(MicrodumpScenario, WriterThatLeftKeepsNobodyBusyAndAStopIsQuick) {
    for (const bool writer_stays : {false, true}) {
        phone_reset();
        unique_fd writer;
        if (writer_stays) writer = open_device();
        const driven_result run =
            play(PREPARED + (writer_stays ? "" : std::string("at 10s write ") + DEVICE + "\n") +
                 "at 11s expect-quiet\nat 1h signal TERM\n");
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_THAT(run.lines_with("vexastatsd stopped"), StartsWith("23:13:20.000"));
    }
}

}  // namespace
