// The daemon's life as its owner sees it: start, consent, samples, shutdown.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "scenario/daemon_process.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char ENABLED[] = "/dev/properties/vendor.orb.vexa.enabled";

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override { phone_reset(); }

    static bool logged(const std::string& text) {
        return phone_log().find(text) != std::string::npos;
    }
};

// Without what the collectors log as they come and go, and without the monitor's failed read, which
// it has only when the stop finds it waiting.
std::string lines_of_main_and_monitor(const std::string& log) {
    std::istringstream stream(log);
    std::string lines;
    for (std::string line; std::getline(stream, line);) {
        // Its signal hook may have stopped that row before the monitor's pass, which then skips it.
        if (line == "diag_collector Terminated") continue;
        for (const char* part : {"property_set ", "vexastatsd ", " Terminated"}) {
            if (line.find(part) != std::string::npos) {
                lines += line + "\n";
                break;
            }
        }
    }
    return lines;
}

TEST_F(DaemonTest, AnnouncesItselfAndEndsInOrder) {
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("vexastatsd version: 1.2 started\n"));
    EXPECT_EQ(file_text(ENABLED), "1");
    ASSERT_TRUE(eventually([] { return fs::exists(STATS_DIR); }));
    EXPECT_EQ(fs::status(STATS_DIR).permissions(), fs::perms::owner_all);
    EXPECT_TRUE(daemon.stop());
    EXPECT_EQ(file_text(ENABLED), "0");
    EXPECT_EQ(lines_of_main_and_monitor(phone_log()),
              "property_set vendor.orb.vexa.enabled 1\n"
              "vexastatsd version: 1.2 started\n"
              "gpu_collector Terminated\n"
              "cpu_collector Terminated\n"
              "static_collector Terminated\n"
              "microdump_collector Terminated\n"
              "mps Terminated\n"
              "mccbandlist_updater Terminated\n"
              "alog_collector Terminated\n"
              "property_set vendor.orb.vexa.enabled 0\n"
              "vexastatsd stopped\n");
}

TEST_F(DaemonTest, TestFileCountsOnDebugBuildsOnly) {
    fs::create_directory(STATS_DIR);
    write_text_file(std::string(STATS_DIR) + "/.property", "0zzz");
    for (const auto& [build, value] : {std::pair{"user", "1"}, {"eng", "0"}, {"userdebug", "0"}}) {
        SCOPED_TRACE(build);
        fs::remove("/dev/log/main");
        write_text_file("/dev/properties/ro.build.type", build);
        daemon_process daemon;
        ASSERT_TRUE(eventually_logged("version: 1.2 started\n"));
        EXPECT_EQ(file_text(ENABLED), value);
        EXPECT_EQ(logged("test: property_set vendor.orb.vexa.enabled 0\n"),
                  std::string(value) == "0");
        EXPECT_TRUE(daemon.stop());
    }
}

TEST_F(DaemonTest, StatsDirectoryThatCannotBeMadeEndsTheDaemonWithThePropertyAsItIs) {
    fs::permissions("/data/vendor", fs::perms::owner_read | fs::perms::owner_exec);
    daemon_process daemon;
    const std::optional<int> status = daemon.wait(milliseconds(3000));
    fs::permissions("/data/vendor", fs::perms::owner_all);
    EXPECT_EQ(status, 256 - 22);
    EXPECT_THAT(phone_log(), HasSubstr("failed to create /data/vendor/vexastats. err:13\n"));
    EXPECT_EQ(file_text(ENABLED), "1");
}

TEST_F(DaemonTest, ConsentComesAndGoesByDirectoryAndByRename) {
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("started\n"));
    opt_in(2);
    ASSERT_TRUE(eventually_logged("cpu_collector enabled\n"));
    fs::rename("/data/vendor/vexa/up/2", "/data/vendor/vexa/aside");
    ASSERT_TRUE(eventually_logged("cpu_collector disabled\n"));
    fs::remove("/dev/log/main");
    fs::rename("/data/vendor/vexa/aside", "/data/vendor/vexa/up/2");
    ASSERT_TRUE(eventually_logged("cpu_collector enabled\n"));
    EXPECT_TRUE(daemon.stop());
}

TEST_F(DaemonTest, PlainFileInTheDropboxRootIsNoConsent) {
    write_text_file(std::string(UP_DIR) + "/2", "");
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("started\n"));
    opt_in(99);  // an event that comes after the first look
    fs::remove(std::string(UP_DIR) + "/2");
    opt_in(2);
    ASSERT_TRUE(eventually_logged("cpu_collector enabled\n"));
    EXPECT_EQ(phone_log().find("enabled\n", phone_log().find("cpu_collector enabled\n") + 22),
              std::string::npos);
    EXPECT_TRUE(daemon.stop());
}

TEST_F(DaemonTest, DropboxRootThatIsMadeLateRemovedAndMadeAgainIsWatched) {
    fs::remove_all("/data/vendor/vexa");
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("wait until /data/vendor/vexa/up is ready\n"));
    fs::create_directories("/data/vendor/vexa/up/2");
    ASSERT_TRUE(eventually_logged("/data/vendor/vexa/up is now ready\ncpu_collector enabled\n"));
    fs::remove("/dev/log/main");
    fs::remove_all("/data/vendor/vexa");
    ASSERT_TRUE(eventually_logged("cpu_collector disabled\n"));
    fs::create_directories("/data/vendor/vexa/up/2");
    ASSERT_TRUE(eventually_logged("cpu_collector enabled\n"));
    EXPECT_TRUE(daemon.stop());
}

TEST_F(DaemonTest, ThousandsOfUnreadChangesDoNotHideConsent) {
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("started\n"));
    daemon.signal(SIGSTOP);
    for (int i = 0; i < 10000; i++) {  // two events each: the queue holds 16384
        const std::string dir = std::string(UP_DIR) + "/x" + std::to_string(i);
        fs::create_directory(dir);
        fs::remove(dir);
    }
    opt_in(2);
    daemon.signal(SIGCONT);
    ASSERT_TRUE(eventually_logged("cpu_collector enabled\n"));
    EXPECT_TRUE(daemon.stop());
}

TEST_F(DaemonTest, SamplesReachTheDropboxWithTheirConfiguration) {
    fs::create_directories(std::string(DOWN_DIR) + "/2");
    deliver_quick_cpu_config(2500);
    opt_in(2);
    phone_set_clock("speed=20");
    daemon_process daemon;
    std::vector<taken_upload> uploads;
    ASSERT_TRUE(eventually([&] {
        for (taken_upload& upload : take_uploads(2)) uploads.push_back(std::move(upload));
        return uploads.size() >= 3;
    }));
    EXPECT_TRUE(daemon.stop());
    EXPECT_EQ(file_text("/data/vendor/vexa/down/2/2-1.1-cpustats.cfg.req"),
              "clientID=2\nversion=1.1\nkey=cpustats.cfg\nrequestType=1\nrequestTimer=31536000\n"
              "connType=1\nconnTimer=360\n");
    EXPECT_FALSE(fs::exists(std::string(DOWN_DIR) + "/2/cpustats.cfg"));
    uint32_t seq = 1;
    for (const taken_upload& upload : uploads) {
        EXPECT_EQ(upload.name, "cpustats." + std::to_string(upload.file.header.realtime_ms));
        EXPECT_EQ(upload.file.header.seq, seq);
        EXPECT_LE(upload.file.header.payload_len, 2500 - 53);
        EXPECT_EQ(upload.cpu().samples.front().freq_khz.size(), 8u);
        seq += 2;
    }
}

TEST_F(DaemonTest, CollectorGoesOnAfterConsentWasGoneInTheMiddleOfARollOver) {
    fs::create_directories(std::string(DOWN_DIR) + "/2");
    deliver_quick_cpu_config(2000);
    opt_in(2);
    phone_set_clock("speed=20");
    daemon_process daemon;
    for (int i = 0; i < 5; i++) {
        ASSERT_TRUE(eventually([] { return !take_uploads(2).empty(); })) << phone_log();
        opt_out(2);
        write_text_file(std::string(UP_DIR) + "/2", "");  // no directory, so a hand-over fails
        usleep(static_cast<useconds_t>(1000 * i));
        fs::remove(std::string(UP_DIR) + "/2");
        opt_in(2);
    }
    EXPECT_TRUE(eventually([] { return !take_uploads(2).empty(); })) << phone_log();
    EXPECT_TRUE(daemon.stop());
}

// Whether descriptor `fd` of process `pid` would stay open in a program that it starts.
bool is_inherited(pid_t pid, const std::string& fd) {
    const std::string info = file_text("/.host/proc/" + std::to_string(pid) + "/fdinfo/" + fd);
    const size_t flags = info.find("flags:\t");
    return flags != std::string::npos &&
           !(std::stoi(info.substr(flags + 7), nullptr, 8) & O_CLOEXEC);
}

TEST_F(DaemonTest, OpenDescriptorsAreClosedInProgramsItStarts) {
    opt_in(2);
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("cpu_collector enabled\n"));
    const std::vector<std::string> open =
        list_dir("/.host/proc/" + std::to_string(daemon.pid()) + "/fd");
    EXPECT_GT(open.size(), 3u);
    for (const std::string& fd : open) {
        const bool came_with_it = is_inherited(getpid(), fd) || std::stoi(fd) <= 2;
        EXPECT_TRUE(came_with_it || !is_inherited(daemon.pid(), fd)) << fd;
    }
    EXPECT_TRUE(daemon.stop());
}

}  // namespace
