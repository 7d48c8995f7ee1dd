// The GPU collector against a file tree and the real framework, with the clocks moved by hand.
#include "collectors/gpu/gpu_collector.h"

#include "collectors/gpu/gpu_sample.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "collectors/gpu/gpu_stats.h"
#include "framework/config/config.h"
#include "framework/record/record.h"
#include "framework/time/clock.h"
#include "support/events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/1";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/1";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/1";
constexpr char RECORD[] = "/data/vendor/vexastats/1/gpustats.tmp";
constexpr char BUSY[] = "/sys/class/kgsl/kgsl-3d0/gpu_busy_percentage";
constexpr char CLOCK[] = "/sys/class/kgsl/kgsl-3d0/gpuclk";
constexpr char COUNT[] = "/sys/class/kgsl/kgsl-3d0/num_pwrlevels";
constexpr char FREQUENCIES[] = "/sys/class/kgsl/kgsl-3d0/gpu_available_frequencies";
constexpr char TIMES[] = "/sys/class/kgsl/kgsl-3d0/gpu_clock_stats";
constexpr char CHARGE[] = "/sys/class/power_supply/bms/charge_counter";
constexpr char BACKLIGHT[] = "/sys/class/leds/lcd-backlight/brightness";
constexpr char STARVED[] = "failed to prepare gpu stats. err:-22\n";
constexpr char SILENT[] = "gpu_monitor: inotify timed out. Disable it.\n";

constexpr size_t SAMPLE_LEN = 12 * 2 + 20;

// As the kernel does it: a reader in between sees the old value or the new one.
void overwrite(const char* path, const std::string& text) {
    std::fstream(path, std::ios::in | std::ios::out) << text << std::flush;
}

// What stands in the record behind its first line.
std::string samples() {
    const std::string record = file_text(RECORD);
    return record.substr(record.find('\n') + 1);
}
size_t sample_count() {
    return samples().size() / SAMPLE_LEN;
}

struct GpuCollector : ::testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::remove_all(dir);
        for (const char* dir : {UP_DIR, DOWN_DIR, "/data/vendor/vexastats"}) {
            fs::create_directories(dir);
        }
        put_sources();
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
    }
    void TearDown() override {
        stop();
        vexastats_record_close(&record);
        close(row.stop.fd);
    }

    static void put_sources() {
        put_files({{BUSY, "37%\n"},
                   {CLOCK, "257000000\n"},
                   {COUNT, "2\n"},
                   {FREQUENCIES, "710000000 0x10 \n"},
                   {TIMES, "8589934593 010\n"},
                   {CHARGE, "-2494000\n"},
                   {BACKLIGHT, "102\n"}});
    }
    void open_record() {
        record_init_req req{.row = &row, .dir = RECORD_DIR, .prefix = "gpustats.tmp"};
        record.file = vexastats_record_init(&req);
        ASSERT_TRUE(record.file);
    }
    void start() {
        platform_test_set_clock(platform_test_clock::MANUAL);
        thread = std::thread([this] { gpu_monitor(&row); });
        park();
    }
    void stop() {
        stop_flag_raise(&row.stop);
        if (thread.joinable()) thread.join();
    }
    static void park() { ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count())); }
    static void pass(int64_t ms) {
        platform_test_advance_ms(ms);
        park();
    }

    collector_info row{.name = "gpu_collector",
                       .up_dir = UP_DIR,
                       .down_dir = DOWN_DIR,
                       .cfg_file = "/data/vendor/vexastats/1/.gpustats.cfg",
                       .dl_cfg_file = "/data/vendor/vexa/down/1/gpustats.cfg",
                       .notify = 1,
                       .interval = 1000,
                       .interval_max = 60000,
                       .interval_min = 100,
                       .threshold_max = 100,
                       .hdr = {.client_id = 1, .rec_version = 4},
                       .cfg_update_handler = vexastats_update_cfg};
    sampling_collector sampler{.row = &row};
    record_handle& record = sampler.record;
    gpu_stats stats;
    std::thread thread;
};

// ---- One sample

TEST_F(GpuCollector, SamplesStandInTheRecordByteForByte) {
    const std::string values =
        "25000000"
        "4082510f"
        "02000000"
        "80bd512a0100000002000000"
        "100000000800000000000000"
        "d0f1d9ff";
    open_record();
    ASSERT_EQ(prepare_gpu_stats(&stats, &sampler), sample_result::TAKEN);
    // Kathmandu is 345 minutes ahead: the first sample there says so, the next one no more.
    setenv("TZ", "NPT-5:45", 1);
    tzset();
    ASSERT_EQ(prepare_gpu_stats(&stats, &sampler), sample_result::TAKEN);
    ASSERT_EQ(prepare_gpu_stats(&stats, &sampler), sample_result::TAKEN);
    EXPECT_EQ(hex(samples()), "50c30000" + values + "50c300805901" + values + "50c30000" + values);
    EXPECT_EQ(platform_test_log_count("prepare_gpu_stats: timezone changed 345\n"), 1u);
}

TEST_F(GpuCollector, SourceThatCannotBeReadOrIsNoNumberFailsTheSample) {
    const std::string invalid = "Invalid file format. err:";
    struct {
        const char* path;
        const char* text;  // null: the file is missing
        std::string logged;
    } const cases[] = {
        {COUNT, nullptr, "failed to read " + std::string(COUNT) + ". err:-22\n"},
        {COUNT, "many\n", invalid},
        {COUNT, "-1\n", invalid},
        {COUNT, "2147483647\n", invalid},
        {COUNT, "357913941\n", invalid},
        {COUNT, "3\n", invalid},
        {BUSY, nullptr, "failed to read " + std::string(BUSY) + ". err:-22\n"},
        {BUSY, "%\n", invalid},
        {CLOCK, nullptr, "failed to read " + std::string(CLOCK) + ". err:-22\n"},
        {CLOCK, "fast\n", invalid},
        {FREQUENCIES, nullptr, "failed to read " + std::string(FREQUENCIES) + ". err:-22\n"},
        {FREQUENCIES, "710000000 \n", invalid},
        {FREQUENCIES, "\n", invalid},
        {TIMES, nullptr, "failed to read " + std::string(TIMES) + ". err:-22\n"},
        {TIMES, "12\n", invalid},
        {CHARGE, nullptr, "failed to read bms cc\n"},
        {CHARGE, "empty\n", "failed to read bms cc\n"},
    };
    open_record();
    for (const auto& c : cases) {
        put_sources();
        fs::remove(c.path);
        if (c.text) put_files({{c.path, c.text}});
        platform_test_clear_log();
        EXPECT_EQ(prepare_gpu_stats(&stats, &sampler), sample_result::SOURCE_FAILED)
            << c.path << " " << c.text;
        EXPECT_THAT(log_text(), HasSubstr(c.logged));
    }
    EXPECT_EQ(samples(), "");
}

TEST_F(GpuCollector, WordsOfAListConvertAsFarAsTheyAreNumbers) {
    gpu_level levels[6] = {};
    ASSERT_TRUE(parse_gpu_list("0x1F 010 low 12x - 9", &gpu_level::time, levels, 6));
    const uint64_t expected[6] = {31, 8, 0, 12, 0, 9};
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(levels[i].time, expected[i]) << i;
}

TEST_F(GpuCollector, ListMayHoldMoreWordsThanThereAreLevelsAndNoLevelNeedsNone) {
    open_record();
    put_files({{FREQUENCIES, "1 2 more\n"}, {TIMES, "\t 3\t 4 5"}});
    EXPECT_EQ(prepare_gpu_stats(&stats, &sampler), sample_result::TAKEN);
    put_files({{COUNT, "0\n"}});
    EXPECT_EQ(prepare_gpu_stats(&stats, &sampler), sample_result::TAKEN);
    EXPECT_EQ(samples().size(), SAMPLE_LEN + 20);
}

// ---- The loop

TEST_F(GpuCollector, LoopSamplesAfterEverySleepUntilTheGpuIsIdleTwiceInARow) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    open_record();
    std::atomic<int> result{-1};
    thread = std::thread([&] { result = sample_result_number(poll_gpu_stats(&stats, &sampler)); });
    const char* const busy[] = {"1%\n", "0%\n", "1%\n", "0%\n"};
    size_t expected = 0;
    for (const char* value : busy) {
        park();
        EXPECT_EQ(sample_count(), expected++) << "the sleep comes before the sample";
        overwrite(BUSY, value);
        platform_test_advance_ms(1000);
    }
    park();
    platform_test_advance_ms(1000);
    thread.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(sample_count(), 5u);
}

TEST_F(GpuCollector, ConsentThatGoesInASleepEndsTheLoopWithoutASample) {
    open_record();
    row.interval = 60000;
    platform_test_set_clock(platform_test_clock::MANUAL);
    thread =
        std::thread([&] { EXPECT_EQ(poll_gpu_stats(&stats, &sampler), sample_result::TAKEN); });
    park();
    row.enabled = 0;
    platform_test_advance_ms(60000);
    thread.join();
    EXPECT_EQ(sample_count(), 0u);
}

TEST_F(GpuCollector, ThresholdItselfCountsAsIdle) {
    open_record();
    row.threshold = 37;
    const uint64_t begin_ms = vexastats_mono_time_ms();
    EXPECT_EQ(poll_gpu_stats(&stats, &sampler), sample_result::TAKEN);
    EXPECT_EQ(vexastats_mono_time_ms() - begin_ms, 2000u);
    EXPECT_EQ(sample_count(), 2u);
}

// ---- The thread

TEST_F(GpuCollector, ChangeOfTheLoadStartsSamplingAndIdlenessEndsIt) {
    overwrite(BUSY, "0%\n");
    start();
    for (size_t i = 1; i <= 3; ++i) {
        pass(600000);
        EXPECT_EQ(sample_count(), (i - 1) * 2) << "no sample without a change";
        overwrite(BUSY, "0%\n");
        park();
        pass(1000);
        pass(1000);
        EXPECT_EQ(sample_count(), i * 2);
    }
    stop();
    EXPECT_EQ(platform_test_log_count("gpu_monitor: failed to read. err:4\n"), 1u);
    EXPECT_THAT(file_text("/data/vendor/vexa/down/1/1-1.1-gpustats.cfg.req"),
                HasSubstr("key=gpustats.cfg\nrequestType=1\nrequestTimer=31536000\nconnType=1\n"
                          "connTimer=360\n"));
}

TEST_F(GpuCollector, EndsByItselfWhenASourceFailsThreeTimes) {
    struct {
        const char* removed;
        int notify;
        const char* logged;
        uint64_t took_ms;  // a second behind each failure, and the sleep before each sample
    } const cases[] = {
        {COUNT, 0, STARVED, 3000 + 3 * 1000},
        {BUSY, 1, "gpu inotify_add_watch failed. err:2\n", 3000},
    };
    for (const auto& c : cases) {
        put_sources();
        fs::remove(c.removed);
        row.notify = c.notify;
        row.stop.raised = 0;
        uint64_t ignored = 0;
        (void)!read(row.stop.fd, &ignored, sizeof ignored);
        fs::remove_all(RECORD_DIR);
        platform_test_clear_log();
        const uint64_t begin_ms = vexastats_mono_time_ms();
        EXPECT_EQ(gpu_monitor(&row), 0);
        EXPECT_TRUE(stop_flag_is_raised(row.stop));
        EXPECT_EQ(platform_test_log_count(c.logged), 3u);
        EXPECT_EQ(vexastats_mono_time_ms() - begin_ms, c.took_ms) << c.logged;
    }
}

TEST_F(GpuCollector, SilentKernelIsGivenUpOnlyWhileTheDisplayIsOn) {
    platform_test_set_boot_ms(119999);
    overwrite(BACKLIGHT, "0\n\n\n");
    overwrite(BUSY, "0%\n");
    row.no_supported_kernel = 1;  // found in an earlier boot
    start();
    EXPECT_EQ(row.no_supported_kernel, 0);
    pass(300000);
    EXPECT_EQ(platform_test_log_count(SILENT), 0u);
    overwrite(BACKLIGHT, "102");
    pass(299999);
    EXPECT_EQ(platform_test_log_count(SILENT), 0u) << "the wait begins afresh";
    pass(1);
    EXPECT_EQ(platform_test_log_count(SILENT), 1u);
    EXPECT_EQ(row.notify, 0);
    EXPECT_THAT(file_text(row.cfg_file),
                HasSubstr("interval=1000;threshold=0;notify=1;no_supported_kernel=1\n"));
    pass(59999);
    EXPECT_EQ(sample_count(), 0u);
    pass(1);
    EXPECT_EQ(sample_count(), 1u) << "every minute from now on";
}

TEST_F(GpuCollector, EventAfterAnEarlyStartMakesTheWaitsUnbounded) {
    platform_test_set_boot_ms(119999);
    overwrite(BUSY, "0%\n");
    start();
    overwrite(BUSY, "0%\n");
    park();
    pass(1000);
    pass(1000);
    pass(days_ms(1));
    EXPECT_EQ(platform_test_log_count(SILENT), 0u);
    EXPECT_EQ(row.notify, 1);
}

TEST_F(GpuCollector, RecordThatIsGoneIsOpenedAgainHoweverOften) {
    row.notify = 0;
    row.size = 100;
    platform_test_set_clock(platform_test_clock::AUTO);
    fs::permissions(UP_DIR, fs::perms::owner_read);  // no hand-over succeeds
    thread = std::thread([this] { gpu_monitor(&row); });
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(platform_test_wait_log(STARVED, EVENT_LIMIT.count()));
        platform_test_clear_log();
    }
    EXPECT_FALSE(stop_flag_is_raised(row.stop));
    fs::permissions(UP_DIR, fs::perms::owner_all);
    EXPECT_TRUE(wait_for_change({UP_DIR}, [] { return list_dir(UP_DIR).size() >= 2; }));
}

}  // namespace
