// The daemon among neighbours: directories held open, floods of changes, FIFOs, closed descriptors.
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

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override { phone_reset(); }
};

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

TEST_F(DaemonTest, CollectorGoesOnAfterConsentWasGoneInTheMiddleOfARollOver) {
    fs::create_directories(std::string(DOWN_DIR) + "/2");
    deliver_quick_cpu_config(2000);
    opt_in(2);
    phone_set_clock("speed=100");
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
    *went_on = *went_on && eventually([&] { return (uploads += take_uploads(2).size()) >= 3; });
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
        phone_set_clock("speed=100");
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
    std::vector<std::string> names = {"/proc/config.gz",
                                      "/vendor/firmware_mnt/verinfo/ver_info.txt",
                                      "/data/vendor/vexa/shared/3/wvstats.tmp"};
    for (const char* name : {".property", "1/.gpustats.cfg", "2/.cpustats.cfg", "3/.aoststats.cfg",
                             "4/.diagstats.cfg", "5/.microdumpstats.cfg", "51/.mccbandlist.info",
                             "5/timeout_microdumpstats.txt", "101/6.camp", "501/.alogstats.cfg"})
        names.push_back(stats + "/" + name);
    for (const char* name : {"1/gpustats.cfg", "2/cpustats.cfg", "3/aoststats.cfg",
                             "4/diagstats.cfg", "5/microdumpstats.cfg", "501/alogstats.cfg"})
        names.push_back(down + "/" + name);
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
