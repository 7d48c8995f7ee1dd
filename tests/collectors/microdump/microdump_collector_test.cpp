// The collector's thread against the real framework and a FIFO for a device, with the clocks moved
// by hand. A parked thread has taken everything that the device had to give.
#include "collectors/microdump/microdump_collector.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <filesystem>
#include <string>
#include <thread>

#include "base/unique_handle.h"
#include "collectors/microdump/microdump_config.h"
#include "framework/row/optout.h"
#include "framework/time/clock.h"
#include "support/events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/5";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/5";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/5";
constexpr char RECORD[] = "/data/vendor/vexastats/5/modem_microdumpstats.tmp";
constexpr char CLOCK_FILE[] = "/data/vendor/vexastats/5/timeout_microdumpstats.txt";
constexpr char DEVICE[] = "/dev/ramdump_microdump_modem";
constexpr char CRASH[] = "--1522738393043\nCrash Time: 2023-11-14 22:13:20 +0000\n";
constexpr int64_t DAY_MS = days_ms(1);

// What stands in the record behind its first line.
std::string dumps() {
    const std::string record = file_text(RECORD);
    return record.substr(record.find('\n') + 1);
}

// Payloads of the files in the dropbox, oldest first.
std::vector<std::string> uploads() {
    std::vector<std::string> payloads;
    for (const std::string& name : list_dir(UP_DIR)) {
        payloads.push_back(gunzip(file_text(fs::path(UP_DIR) / name).substr(53)));
    }
    return payloads;
}

struct MicrodumpCollector : ::testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::remove_all(dir);
        for (const char* dir : {UP_DIR, DOWN_DIR, "/data/vendor/vexastats"}) {
            fs::create_directories(dir);
        }
        fs::remove(DEVICE);
        ASSERT_EQ(mkfifo(DEVICE, 0600), 0);
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
        platform_test_set_clock(platform_test_clock::MANUAL);
    }
    void TearDown() override {
        stop();
        close(row.stop.fd);
    }

    void start() {
        thread = std::thread([this] { microdump_monitor(&row); });
    }
    void start_and_park() {
        start();
        park();
    }
    void stop() {
        stop_flag_raise(&row.stop);
        {
            const vexa_lock lock(row.mutex);
            row.cond.notify_all();
        }
        if (thread.joinable()) thread.join();
    }
    // Makes the row as it is after a restart of the daemon.
    void renew() {
        stop();
        row.stop.raised = 0;
        uint64_t ignored = 0;
        (void)!read(row.stop.fd, &ignored, sizeof ignored);
        platform_test_clear_log();
    }
    void restart() {
        renew();
        start_and_park();
    }
    static void park() { ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count())); }
    static void pass(int64_t ms) {
        platform_test_advance_ms(ms);
        park();
    }
    static unique_fd open_writer() {
        unique_fd writer(open(DEVICE, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_TRUE(writer) << "nobody reads the device";
        return writer;
    }
    static void put(const unique_fd& writer, const std::string& text) {
        ASSERT_EQ(write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
        park();
    }
    static void crash(const std::string& text) {
        unique_fd writer = open_writer();
        put(writer, text);
        writer.reset();
        park();
    }
    collector_info row{.name = "microdump_collector",
                       .up_dir = UP_DIR,
                       .down_dir = DOWN_DIR,
                       .cfg_file = "/data/vendor/vexastats/5/.microdumpstats.cfg",
                       .dl_cfg_file = "/data/vendor/vexa/down/5/microdumpstats.cfg",
                       .max_upload_wait_time = days_ms(5),
                       .hdr = {.client_id = 5, .data_type = DATA_TYPE_MICRODUMP, .rec_version = 2},
                       .cfg_read_handler = microdump_cfg_read_handler,
                       .cfg_update_handler = microdump_cfg_update_handler};
    std::thread thread;
};

TEST_F(MicrodumpCollector, DumpInPiecesIsOneAndTheNextWriterBringsAnother) {
    start_and_park();
    unique_fd writer = open_writer();
    for (const char* piece : {"first\n", "second\n"}) put(writer, piece);
    EXPECT_EQ(dumps(), "") << "a dump stands in the record when it is whole";
    writer.reset();
    park();
    crash("third\n");
    EXPECT_EQ(dumps(), CRASH + std::string("first\nsecond\n") + CRASH + "third\n");
}

TEST_F(MicrodumpCollector, DumpLargerThanTheBufferIsCutAndDrained) {
    start_and_park();
    crash(std::string(30000, 'a'));
    const size_t text = 4410 - sizeof CRASH + 1 - 1;
    EXPECT_EQ(dumps(), CRASH + std::string(text, 'a') + "\n");
    crash("next\n");
    EXPECT_THAT(dumps(), EndsWith("a\n" + std::string(CRASH) + "next\n"));
}

TEST_F(MicrodumpCollector, WriterThatLeavesWithoutAWordIsNoCrashAndNoSpin) {
    start_and_park();
    for (int i = 0; i < 3; i++) {
        open_writer().reset();
        park();
    }
    EXPECT_EQ(dumps(), "");
    crash("real\n");
    EXPECT_EQ(dumps(), CRASH + std::string("real\n"));
}

TEST_F(MicrodumpCollector, WriterThatStaysHoldsItsDumpBackForAMinuteOnly) {
    start_and_park();
    const unique_fd writer = open_writer();
    put(writer, "one\n");
    pass(59999);
    put(writer, "two\n");
    pass(59999);
    EXPECT_EQ(dumps(), "");
    pass(1);
    EXPECT_EQ(dumps(), CRASH + std::string("one\ntwo\n"));
    put(writer, "three\n");
    stop();
    EXPECT_THAT(dumps(), EndsWith("22:15:19 +0000\nthree\n")) << "what a stop cuts short is kept";
}

TEST_F(MicrodumpCollector, StopEndsTheWaitForAWriterAtOnce) {
    start_and_park();
    stop();
    EXPECT_EQ(platform_test_log_count("Failed Poll command \n"), 1u);
    EXPECT_EQ(file_text("/data/vendor/vexa/down/5/5-1.0-microdumpstats.cfg.req"),
              "clientID=5\nversion=1.0\nkey=microdumpstats.cfg\nrequestType=1\n"
              "requestTimer=31536000\nconnType=1\nconnTimer=360\n");
}

TEST_F(MicrodumpCollector, WaitForTheUploadGoesOnAfterARestart) {
    start_and_park();
    EXPECT_THAT(log_text(), HasSubstr("Time_started:1700000000000\n"
                                      "Timeout read from old file: 1700000000000\n"));
    crash("before\n");
    pass(2 * DAY_MS);
    restart();
    EXPECT_THAT(log_text(), HasSubstr("Timeout read from old file: 1700000000000\n"
                                      "Time_started:1700000000000\n"));
    crash("after\n");
    pass(3 * DAY_MS - 1);
    EXPECT_THAT(uploads(), IsEmpty());
    pass(1);
    EXPECT_THAT(uploads(), ElementsAre(CRASH + std::string("before\n--1522738393043\nCrash Time: "
                                                           "2023-11-16 22:13:20 +0000\nafter\n")));
    EXPECT_EQ(dumps(), "");
    EXPECT_EQ(file_text(CLOCK_FILE), "time_started=" + std::to_string(1700000000000 + 5 * DAY_MS));
}

TEST_F(MicrodumpCollector, ClockSetBackHandsTheRecordOffAtTheNextLook) {
    start_and_park();
    crash("one\n");
    platform_test_set_real_ms(PLATFORM_TEST_REAL_MS - DAY_MS);
    EXPECT_THAT(uploads(), IsEmpty());
    {
        const unique_fd writer = open_writer();
        put(writer, "two\n");
        EXPECT_THAT(uploads(), IsEmpty()) << "not from under a dump that is not whole";
    }
    park();
    ASSERT_THAT(uploads(), SizeIs(1));
    EXPECT_THAT(uploads()[0], EndsWith("two\n"));
    EXPECT_EQ(file_text(CLOCK_FILE), "time_started=" + std::to_string(1700000000000 - DAY_MS));
}

TEST_F(MicrodumpCollector, RecordThatIsFullIsHandedOverAndTheClockStartsAgain) {
    row.size = 700;
    row.cfg_read_handler = nullptr;  // the size stays
    start_and_park();
    for (int i = 0; uploads().empty() && i < 100; i++) {
        platform_test_advance_ms(1000);
        crash(hex(std::string(100, static_cast<char>(i * 37))) + std::to_string(i * i * i) + "\n");
    }
    EXPECT_THAT(uploads(), SizeIs(1));
    const std::string now = std::to_string(vexastats_real_time_ms());
    EXPECT_EQ(file_text(CLOCK_FILE), "time_started=" + now);
    EXPECT_EQ(platform_test_log_count("Time_started: " + now + "\n"), 1u);
    EXPECT_EQ(dumps().find("--1522738393043"), dumps().rfind("--1522738393043"))
        << "the dump that had no room is the first of the new record";
}

TEST_F(MicrodumpCollector, TimeOutsWithNothingToHandOverDoNotSpin) {
    struct {
        uint64_t wait_ms;
        bool clock_can_be_saved;
    } const cases[] = {{0, true}, {0, false}, {days_ms(5), false}};
    for (const auto& c : cases) {
        fs::remove_all(RECORD_DIR);
        put_files({{"/data/vendor/vexa/down/5/microdumpstats.cfg",
                    "clientid=5;size=65536;maxuploadwaittime=" + std::to_string(c.wait_ms)},
                   {CLOCK_FILE, "time_started=1"}});
        start_and_park();
        if (!c.clock_can_be_saved) {
            fs::remove(CLOCK_FILE);
            fs::create_directories(CLOCK_FILE + std::string("/x"));
        }
        platform_test_clear_log();
        const uint64_t begin_ms = vexastats_real_time_ms();
        for (int i = 0; i < 10; i++) pass(1000);
        const std::string log = log_text();
        size_t restarts = 0;
        for (size_t at = 0; (at = log.find("Time_started: ", at)) != log.npos; at++) restarts++;
        EXPECT_LE(restarts, (vexastats_real_time_ms() - begin_ms) / 1000);
        EXPECT_EQ(c.wait_ms == 0, restarts > 0);
        crash("dump\n");
        pass(static_cast<int64_t>(c.wait_ms));
        EXPECT_THAT(uploads(), SizeIs(1)) << "and the next dump comes through";
        renew();
        fs::remove_all(UP_DIR);
        fs::create_directories(UP_DIR);
    }
}

TEST_F(MicrodumpCollector, HandOverThatFailsLosesNothing) {
    start_and_park();
    crash("dump\n");
    fs::permissions(RECORD_DIR, fs::perms::owner_read | fs::perms::owner_exec);
    pass(5 * DAY_MS);
    EXPECT_EQ(dumps(), CRASH + std::string("dump\n"));
    fs::permissions(RECORD_DIR, fs::perms::owner_all);
    crash("later\n");
    pass(5 * DAY_MS);
    ASSERT_THAT(uploads(), SizeIs(1));
    EXPECT_THAT(uploads()[0], StartsWith(CRASH + std::string("dump\n")));
    EXPECT_THAT(uploads()[0], EndsWith("later\n"));
}

// Runs the row as the opt-out monitor would.
struct Consent : MicrodumpCollector {
    void SetUp() override {
        MicrodumpCollector::SetUp();
        row.running = 1;
        context.table = &row;
        context.count = 1;
    }
    void set(bool given) {
        if (given) {
            fs::create_directories(UP_DIR);
        } else {
            fs::remove_all(UP_DIR);
        }
        optout_handle(&context, 0);
    }
    optout_context context;
};

// Opt-in waits do not park: waits for the device instead. Each look is a writer that leaves.
void wait_until_held(bool held) {
    const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
    for (;;) {
        const bool is_held = unique_fd(open(DEVICE, O_WRONLY | O_NONBLOCK | O_CLOEXEC)).get() >= 0;
        if (is_held == held) return;
        ASSERT_LT(std::chrono::steady_clock::now(), limit);
        std::this_thread::yield();
    }
}

TEST_F(Consent, DeviceIsLetGoAtTheNextDumpAndTakenAgain) {
    start_and_park();
    set(false);
    {
        const unique_fd writer = open_writer();  // it still is held
        (void)!write(writer.get(), "secret\n", 7);
        wait_until_held(false);
    }
    set(true);
    wait_until_held(true);
    park();
    crash("public\n");
    EXPECT_EQ(dumps(), CRASH + std::string("public\n"));
}

TEST_F(Consent, RecordWaitsForConsentWithoutTheDevice) {
    start_and_park();
    crash("dump\n");
    set(false);
    platform_test_advance_ms(5 * DAY_MS);
    wait_until_held(false);
    EXPECT_EQ(dumps(), CRASH + std::string("dump\n"));
    set(true);
    wait_until_held(true);
    park();
    EXPECT_THAT(uploads(), ElementsAre(CRASH + std::string("dump\n")));
}

TEST_F(Consent, StopWhileTheRecordWaitsLeavesRecordAndClockToTheNextRun) {
    start_and_park();
    crash("dump\n");
    set(false);
    platform_test_advance_ms(5 * DAY_MS);
    wait_until_held(false);
    stop();
    EXPECT_EQ(dumps(), CRASH + std::string("dump\n"));
    EXPECT_EQ(file_text(CLOCK_FILE), "time_started=1700000000000");
    set(true);
    row.enabled = 1;
    restart();
    EXPECT_THAT(uploads(), ElementsAre(CRASH + std::string("dump\n")));
}

TEST_F(MicrodumpCollector, EndsAtTheStartWithoutItsDeviceButNotWithoutItsRecord) {
    fs::remove(DEVICE);
    microdump_monitor(&row);
    EXPECT_THAT(log_text(), EndsWith("Unable to open /dev/ramdump_microdump_modem. err:2\n"));
    EXPECT_TRUE(stop_flag_is_raised(row.stop));
    renew();
    fs::remove_all(RECORD_DIR);
    put_files({{RECORD_DIR, ""}});
    ASSERT_EQ(mkfifo(DEVICE, 0600), 0);
    start_and_park();
    EXPECT_THAT(log_text(), HasSubstr("failed to open record file for microdump collector\n"));
    fs::remove(RECORD_DIR);
    fs::create_directories(RECORD_DIR);
    crash("first\n");
    EXPECT_EQ(dumps(), CRASH + std::string("first\n"));
}

TEST_F(MicrodumpCollector, DeviceThatIsReadyWithNothingToGiveIsGivenTime) {
    fs::remove(DEVICE);
    put_files({{DEVICE, "plain file\n"}});  // ready for ever, at its end after the first read
    start();
    for (int i = 0; i < 3; i++) {
        park();
        EXPECT_EQ(dumps(), CRASH + std::string("plain file\n"));
        platform_test_advance_ms(1000);
    }
    stop();
    fs::remove(DEVICE);
}

}  // namespace
