// The microdump collector in the whole daemon: from consent and a crash to the upload.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>

#include "base/unique_handle.h"
#include "microdump_record.h"
#include "scenario/daemon_process.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace {

constexpr char DEVICE[] = "/dev/ramdump_microdump_modem";
constexpr char RECORD[] = "/data/vendor/vexastats/5/modem_microdumpstats.tmp";
constexpr char CLOCK_FILE[] = "/data/vendor/vexastats/5/timeout_microdumpstats.txt";

class MicrodumpScenario : public ::testing::Test {
  protected:
    void SetUp() override {
        phone_reset();
        fs::create_directories(std::string(DOWN_DIR) + "/5");
        opt_in(5);
    }
    // Waits until the daemon reads the device.
    static unique_fd open_device() {
        unique_fd writer;
        EXPECT_TRUE(eventually([&] {
            writer.reset(open(DEVICE, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            return writer.get() >= 0;
        })) << phone_log();
        (void)fcntl(writer.get(), F_SETFL, 0);  // what does not fit waits for the reader
        return writer;
    }
    static void put(const unique_fd& writer, const std::string& text) {
        EXPECT_EQ(write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    static void crash(const std::string& text) { put(open_device(), text); }

    static bool eventually_recorded(const std::string& text) {
        return eventually([&] { return file_text(RECORD).find(text) != std::string::npos; });
    }
    static std::vector<taken_upload> wait_for_upload() {
        std::vector<taken_upload> uploads;
        EXPECT_TRUE(eventually([&] { return !(uploads = take_uploads(5)).empty(); }))
            << phone_log();
        return uploads;
    }
    static std::vector<std::string> texts(const taken_upload& upload) {
        std::vector<std::string> all;
        for (const microdump& dump : microdump_record_decode(upload.file.payload).dumps) {
            all.push_back(dump.text);
        }
        return all;
    }
};

TEST_F(MicrodumpScenario, CrashesOfEverySizeArriveWithTheirTimes) {
    deliver(5, "microdumpstats.cfg", "clientid=5;size=65536;maxuploadwaittime=60000\n");
    phone_set_clock("real=2023-07-01T10:00:00Z speed=20");
    daemon_process daemon({"TZ=Europe/Berlin"});
    crash("in one piece\n");
    ASSERT_TRUE(eventually_recorded("in one piece\n"));
    {
        const unique_fd writer = open_device();
        put(writer, "in ");
        put(writer, "two pieces\n");
    }
    ASSERT_TRUE(eventually_recorded("two pieces\n"));
    crash(std::string(100000, 'x'));
    const std::vector<taken_upload> uploads = wait_for_upload();
    EXPECT_TRUE(daemon.stop());

    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_THAT(uploads[0].name, StartsWith("modem_microdumpstats."));
    EXPECT_EQ(uploads[0].file.header.data_type, 2);
    const auto dumps = microdump_record_decode(uploads[0].file.payload).dumps;
    ASSERT_EQ(dumps.size(), 3u);
    for (const microdump& dump : dumps) {
        EXPECT_THAT(dump.crash_time, testing::MatchesRegex("2023-07-01 12:0[0-9]:.. \\+0200"));
    }
    EXPECT_EQ(dumps[2].text, std::string(4410 - 54 - 1, 'x') + "\n");
    EXPECT_FALSE(fs::exists(std::string(DOWN_DIR) + "/5/microdumpstats.cfg"));
    EXPECT_EQ(file_text(std::string(STATS_DIR) + "/5/.microdumpstats.cfg"),
              "#microdump_collector config file. Version: 1.2\n"
              "clientid=5;size=65536;maxuploadwaittime=60000");
}

TEST_F(MicrodumpScenario, RestartResumesTheRecordAndItsClock) {
    phone_set_clock("real=2023-07-01T10:00:00Z");
    std::string clock;
    for (const char* text : {"first run\n", "second run\n"}) {
        daemon_process daemon;
        crash(text);
        ASSERT_TRUE(eventually_recorded(text));
        EXPECT_TRUE(daemon.stop());
        if (clock.empty()) clock = file_text(CLOCK_FILE);
        EXPECT_EQ(file_text(CLOCK_FILE), clock);
    }
    EXPECT_THAT(take_uploads(5), testing::IsEmpty());
    phone_set_clock("real=2023-07-06T10:00:10Z");
    daemon_process daemon;
    const std::vector<taken_upload> uploads = wait_for_upload();
    EXPECT_THAT(texts(uploads.at(0)), ElementsAre("first run\n", "second run\n"));
    EXPECT_TRUE(eventually([&] { return file_text(CLOCK_FILE) != clock; }));
    EXPECT_TRUE(daemon.stop());
}

TEST_F(MicrodumpScenario, ClockSetBackHandsTheRecordOffAtTheNextDump) {
    phone_set_clock("real=2023-07-01T10:00:00Z");
    daemon_process daemon;
    crash("before\n");
    ASSERT_TRUE(eventually_recorded("before\n"));
    phone_set_clock("real=2013-07-01T10:00:00Z");
    std::vector<taken_upload> uploads;
    ASSERT_TRUE(eventually([&] {
        crash("after\n");  // the daemon notes the jump a moment later
        return !(uploads = take_uploads(5)).empty();
    })) << phone_log();
    const std::vector<std::string> all = texts(uploads[0]);
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all.front(), "before\n");
    EXPECT_EQ(all.back(), "after\n");
    EXPECT_TRUE(daemon.stop());
}

double cpu_s(pid_t pid) {
    clockid_t clock = 0;
    timespec used = {};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) return -1;
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

TEST_F(MicrodumpScenario, WriterThatLeftKeepsNobodyBusyAndAStopIsQuick) {
    for (const bool writer_stays : {false, true}) {
        daemon_process daemon;
        unique_fd writer = open_device();
        if (!writer_stays) writer.reset();
        const double before = cpu_s(daemon.pid());
        usleep(300000);
        EXPECT_LT(cpu_s(daemon.pid()) - before, 0.1);
        EXPECT_TRUE(daemon.stop(milliseconds(1500)));
    }
}

}  // namespace
