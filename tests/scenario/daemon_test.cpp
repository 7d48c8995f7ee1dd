// The daemon's life as its owner sees it: start, consent, samples, shutdown.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "base/unique_handle.h"
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

TEST_F(DaemonTest, StatsDirectoryIsTakenOnlyWhenItIsTheDaemonsAlone) {
    const fs::path dir(STATS_DIR), elsewhere = "/data/vendor/elsewhere";
    const auto ends_with = [](int code) {
        fs::remove("/dev/log/main");
        daemon_process daemon;
        EXPECT_EQ(daemon.wait(milliseconds(3000)), 256 - 22);
        EXPECT_THAT(phone_log(), HasSubstr("failed to create /data/vendor/vexastats. err:" +
                                           std::to_string(code) + "\n"));
    };
    fs::remove_all(dir);
    fs::create_directories(elsewhere);
    fs::create_directory_symlink(elsewhere, dir);
    ends_with(20);
    EXPECT_TRUE(fs::is_empty(elsewhere));
    fs::remove(dir);
    put_files({{dir.string(), "a file"}});
    ends_with(20);
    fs::remove(dir);
    fs::create_directory(dir);
    fs::permissions(dir, fs::perms::all);
    ends_with(1);
    fs::permissions(dir, fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
    daemon_process daemon;
    EXPECT_TRUE(eventually([&] { return fs::status(dir).permissions() == fs::perms::owner_all; }));
    EXPECT_TRUE(daemon.stop());
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

// The end of a directory that is held open makes no event of its own until it is let go of.
TEST_F(DaemonTest, DirectoriesThatSomebodyHoldsOpenAreSeenToGoAndToComeBack) {
    struct {
        const char* what;
        const char* held;
        void (*prepare)();
        const char* waiting;  // in the log before the directory goes
        void (*remake)();
        const char* seen;  // in the log once it is back
    } const cases[] = {
        {"the dropbox root", UP_DIR, [] {}, "cpu_collector enabled\n", [] { opt_in(1); },
         "gpu_collector enabled\n"},
        {"the directory above it", "/data/vendor/vexa", [] {}, "cpu_collector enabled\n",
         [] { opt_in(1); }, "gpu_collector enabled\n"},
        {"where the root is waited for", "/data/vendor/vexa", [] { fs::remove_all(UP_DIR); },
         "wait until /data/vendor/vexa/up is ready\n", [] { opt_in(1); },
         "gpu_collector enabled\n"},
        {"where a configuration is waited for", "/data/vendor/vexa/down/501",
         [] {
             opt_in(501);
             fs::create_directories("/data/vendor/vexa/down/501");
         },
         "Waiting on /data/vendor/vexa/down/501/alogstats.cfg",
         [] {
             deliver(501, "alogstats.cfg",
                     "clientid=501;size=65536;campaign_id=7;campaign_duration_secs=60;"
                     "num_alog_masks=0;\n");
         },
         "Starting ALOG Campaign 7"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        phone_reset();
        opt_in(2);
        c.prepare();
        daemon_process daemon;
        ASSERT_TRUE(eventually_logged(c.waiting)) << phone_log();
        fs::remove("/dev/log/main");
        {
            const unique_fd held(open(c.held, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            ASSERT_TRUE(held);
            fs::remove_all(c.held);
            fs::create_directories(c.held);
            fs::create_directories(UP_DIR);
            c.remake();
            EXPECT_TRUE(eventually_logged(c.seen)) << phone_log();
        }
        EXPECT_TRUE(daemon.stop());
    }
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

// Has the process table trace more than any buffer of a stream holds, as soon as the first sample
// is there, and waits for the uploads behind that.
void sample_with_many_traces(bool* went_on) {
    const fs::path record = std::string(STATS_DIR) + "/2/cpustats.tmp";
    *went_on = eventually([&] { return fs::exists(record) && fs::file_size(record) > 200; });
    for (int pid = 20000; pid < 20600; ++pid) {
        fs::create_directory("/proc/" + std::to_string(pid));
    }
    size_t uploads = 0;
    *went_on = *went_on && eventually([&] { return (uploads += take_uploads(2).size()) >= 6; });
    for (int pid = 20000; pid < 20600; ++pid) fs::remove("/proc/" + std::to_string(pid));
}

TEST_F(DaemonTest, StandardOutputThatNobodyReadsHoldsNothingUp) {
    constexpr char OUTPUT[] = "/data/output";
    for (const bool reader_goes : {false, true}) {
        SCOPED_TRACE(reader_goes);
        phone_reset();
        fs::create_directories("/proc/99999");
        fs::create_directories(std::string(DOWN_DIR) + "/2");
        deliver_quick_cpu_config(2500);
        opt_in(2);
        phone_set_clock("speed=20");
        ASSERT_EQ(mkfifo(OUTPUT, 0600), 0);
        unique_fd reader(open(OUTPUT, O_RDWR | O_NONBLOCK | O_CLOEXEC));
        if (!reader_goes) {
            while (write(reader.get(), "x", 1) == 1) {
            }
        }
        daemon_process daemon({}, OUTPUT);
        if (reader_goes) reader.reset();
        bool went_on = false;
        sample_with_many_traces(&went_on);
        EXPECT_TRUE(went_on) << phone_log();
        EXPECT_TRUE(daemon.stop());
        fs::remove("/proc/99999");
    }
}

TEST_F(DaemonTest, MissingStandardDescriptorsAreFilledFirst) {
    child_process daemon({"sh", "-c", "exec \"$0\" <&- >&- 2>&-", program("vexastatsd")});
    show_threads(daemon.pid());
    ASSERT_TRUE(eventually_logged("started\n"));
    for (const char* fd : {"0", "1", "2"}) {
        const fs::path link = "/.host/proc/" + std::to_string(daemon.pid()) + "/fd/" + fd;
        std::error_code error;
        EXPECT_EQ(fs::read_symlink(link, error), "/dev/null") << fd;
    }
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(milliseconds(3000)), 0);
    fs::remove_all("/proc/" + std::to_string(daemon.pid()));
}

// Whatever the daemon opens by name may be a FIFO that nobody writes to.
TEST_F(DaemonTest, FifosInPlaceOfItsFilesHoldUpNeitherStartNorConsentNorStop) {
    write_text_file("/dev/properties/ro.build.type", "userdebug");
    const std::string stats = STATS_DIR;
    const std::string down = DOWN_DIR;
    const std::string kernel_config = file_text("/proc/config.gz");
    const std::vector<std::string> names = {
        "/proc/config.gz",
        "/vendor/firmware_mnt/verinfo/ver_info.txt",
        "/data/vendor/vexa/shared/3/wvstats.tmp",
        stats + "/.property",
        stats + "/1/.gpustats.cfg",
        stats + "/2/.cpustats.cfg",
        stats + "/3/.aoststats.cfg",
        stats + "/4/.diagstats.cfg",
        stats + "/5/.microdumpstats.cfg",
        stats + "/5/timeout_microdumpstats.txt",
        stats + "/51/.mccbandlist.info",
        stats + "/101/6.camp",
        stats + "/501/.alogstats.cfg",
        down + "/1/gpustats.cfg",
        down + "/2/cpustats.cfg",
        down + "/3/aoststats.cfg",
        down + "/4/diagstats.cfg",
        down + "/5/microdumpstats.cfg",
        down + "/501/alogstats.cfg",
    };
    for (const std::string& name : names) {
        fs::create_directories(fs::path(name).parent_path());
        fs::remove(name);
        ASSERT_EQ(mkfifo(name.c_str(), 0600), 0) << name;
    }
    for (const char* id : {"/51", "/101"}) fs::create_directories(down + id);
    {
        daemon_process daemon;
        ASSERT_TRUE(eventually_logged("vexastatsd version: 1.2 started\n"));
        for (const int id : {1, 2, 3, 4, 5, 501}) opt_in(id);
        for (const char* text :
             {"gpu_collector enabled\n", "cpu_collector enabled\n", "diag_collector enabled\n",
              "alog_collector enabled\n", "failed to gzopen /proc/config.gz\n", "Time_started:",
              "DIAGSTATS: Waiting on", "Waiting on /data/vendor/vexa/down/501", "no info file"}) {
            EXPECT_TRUE(eventually_logged(text)) << text << phone_log();
        }
        EXPECT_TRUE(daemon.stop());
    }
    for (const std::string& name : names) fs::remove(name);
    write_text_file("/proc/config.gz", kernel_config);
}

}  // namespace
