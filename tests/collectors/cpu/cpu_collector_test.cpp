// The collector's thread against the real framework, with the clocks moved by hand.
#include "collectors/cpu/cpu_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include "collectors/cpu/cpu_stats.h"
#include "collectors/cpu/readproc.h"
#include "collectors/cpu/vexapslist.h"
#include "framework/config/config.h"
#include "framework/record/record.h"
#include "framework/time/clock.h"
#include "support/events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/2";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/2";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/2";
constexpr char RECORD[] = "/data/vendor/vexastats/2/cpustats.tmp";
constexpr char CPU_DIR[] = "/sys/devices/system/cpu/";
constexpr char STARVED[] = "failed to prepare cpu stats. err:-22\n";

std::string frequency_file(int cpu) {
    return CPU_DIR + ("cpu" + std::to_string(cpu)) + "/cpufreq/scaling_cur_freq";
}

// As the kernel does it: a reader in between sees the old value or the new one.
void overwrite(const std::string& path, const std::string& text) {
    std::fstream(path, std::ios::in | std::ios::out) << text << std::flush;
}

// What stands in the record behind its first line.
std::string samples() {
    const std::string record = file_text(RECORD);
    return record.substr(record.find('\n') + 1);
}

struct CpuCollector : ::testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::remove_all(dir);
        for (const char* dir : {UP_DIR, DOWN_DIR, "/data/vendor/vexastats"}) {
            fs::create_directories(dir);
        }
        for (const char* dir : {CPU_DIR, "/sys/class/thermal", "/proc/net"}) fs::remove_all(dir);
        put_files({{CPU_DIR + std::string("possible"), "0-1\n"},
                   {frequency_file(0), "300000\n"},
                   {frequency_file(1), "500000\n"},
                   {"/sys/class/power_supply/bms/charge_counter", "2494000\n"},
                   {"/sys/class/power_supply/battery/capacity", "83\n"},
                   {"/sys/class/power_supply/battery/status", "Discharging\n"},
                   {"/sys/class/leds/lcd-backlight/brightness", "102\n"},
                   {"/proc/stat", "cpu 9\ncpu0 1 2 3 4 5 6 7\ncpu1 1 2 3 4 5 6 7\n"}});
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
    }
    void TearDown() override {
        stop();
        vexastats_record_close(&record);
        if (row.stop.fd >= 0) close(row.stop.fd);
        fs::remove(RECORD);
    }

    void start() {
        thread = std::thread([this] { result = cpu_monitor(&row); });
    }
    void stop() {
        stop_flag_raise(&row.stop);
        if (thread.joinable()) thread.join();
    }
    void open_record() {
        record_init_req req{.row = &row, .dir = RECORD_DIR, .prefix = "cpustats.tmp"};
        record.file = vexastats_record_init(&req);
        ASSERT_TRUE(record.file);
        stats.cpu_count = 2;
    }
    static void park() { ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count())); }

    collector_info row{.name = "cpu_collector",
                       .up_dir = UP_DIR,
                       .down_dir = DOWN_DIR,
                       .cfg_file = "/data/vendor/vexastats/2/.cpustats.cfg",
                       .dl_cfg_file = "/data/vendor/vexa/down/2/cpustats.cfg",
                       .interval = 60000,
                       .interval_max = 60000,
                       .interval_min = 100,
                       .threshold = 300000,
                       .threshold_max = 1900800,
                       .threshold_min = 300000,
                       .hdr = {.client_id = 2, .rec_version = 6},
                       .cfg_update_handler = vexastats_update_cfg};
    sampling_collector sampler{.row = &row};
    record_handle& record = sampler.record;
    cpu_stats stats;
    std::thread thread;
    std::atomic<int> result{-1};
};

// A sample of the two cores, without zones, network and processes.
std::string sample_hex(const std::string& stamp) {
    const std::string times = "01000000020000000300000004000000050000000600000007000000";
    return stamp + "02000000" + times + times + "e093040020a10700" + "300e2600" + "9a66" + "0000" +
           "0000" + "0000";
}

TEST_F(CpuCollector, SamplesStandInTheRecordByteForByte) {
    open_record();
    sampler.storage_pause.next_ms = growing_pause::LONGEST_MS;
    ASSERT_EQ(prepare_cpu_stats(&stats, &sampler), sample_result::TAKEN);
    EXPECT_EQ(sampler.storage_pause.next_ms, growing_pause::FIRST_MS) << "all is well again";
    // Kathmandu is 345 minutes ahead: the first sample there says so, the next one no more.
    setenv("TZ", "NPT-5:45", 1);
    tzset();
    ASSERT_EQ(prepare_cpu_stats(&stats, &sampler), sample_result::TAKEN);
    ASSERT_EQ(prepare_cpu_stats(&stats, &sampler), sample_result::TAKEN);
    EXPECT_EQ(hex(samples()),
              sample_hex("50c30000") + sample_hex("50c300805901") + sample_hex("50c30000"));
    EXPECT_EQ(platform_test_log_count("prepare_cpu_stats: timezone changed 345\n"), 1u);
}

TEST_F(CpuCollector, LoopEndsAfterOneSampleAtTheThresholdAndWithoutARecord) {
    open_record();
    const uint64_t begin_ms = vexastats_mono_time_ms();
    EXPECT_EQ(poll_cpu_stats(&stats, &sampler, nullptr), sample_result::TAKEN);
    EXPECT_EQ(vexastats_mono_time_ms() - begin_ms, 60000u);
    stats.tracks_processes = true;
    EXPECT_EQ(poll_cpu_stats(&stats, &sampler, nullptr), sample_result::TAKEN);
    EXPECT_EQ(vexastats_mono_time_ms() - begin_ms, 70000u)
        << "looks every 10 s when processes are scanned";
    EXPECT_EQ(samples().size(), 2 * 84u);
    vexastats_record_close(&record);
    EXPECT_EQ(poll_cpu_stats(&stats, &sampler, nullptr), sample_result::STORAGE_FAILED);
}

TEST_F(CpuCollector, SampleIsDueOnlyOnceMoreThanTheIntervalHasPassed) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    put_files({{frequency_file(0), "300001\n"}});
    open_record();
    row.interval = 1000;
    thread = std::thread(
        [this] { result = sample_result_number(poll_cpu_stats(&stats, &sampler, nullptr)); });
    for (const size_t expected : {1u, 1u, 2u, 2u, 3u}) {
        park();
        EXPECT_EQ(samples().size() / 84, expected);
        platform_test_advance_ms(1000);
    }
    park();
    row.enabled = 0;
    platform_test_advance_ms(1000);
    thread.join();
    EXPECT_EQ(result, 0);
}

TEST_F(CpuCollector, ScanIsDueOnlyOnceMoreThanTenSecondsHavePassed) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    put_files({{frequency_file(0), "300001\n"}});
    open_record();
    stats.tracks_processes = true;
    const unique_dir empty(opendir(UP_DIR));
    const uint64_t before = stats.processes.entries;
    thread = std::thread(
        [&] { result = sample_result_number(poll_cpu_stats(&stats, &sampler, empty.get())); });
    for (const uint64_t scans : {1u, 1u, 2u, 2u, 3u}) {
        park();
        EXPECT_EQ(stats.processes.entries - before, scans * 2) << "\".\" and \"..\"";
        platform_test_advance_ms(10000);
    }
    stop();
}

TEST_F(CpuCollector, SnapshotCarriesProcessesInsteadOfNetworkEntries) {
    put_files({{"/proc/net/xt_qtaguid/stats", "header\n2 wlan0 0x0 10131 1 5 1 6 1\n"}});
    open_record();
    const unique_dir proc(opendir("/proc"));
    stats.tracks_processes = true;
    put_files({{"/sys/class/power_supply/bms/charge_counter", "2494000\n"}});
    EXPECT_EQ(poll_cpu_stats(&stats, &sampler, proc.get()), sample_result::TAKEN);
    const std::string first = samples();
    EXPECT_EQ(hex(first.substr(80)),
              "0100"
              "01932701"
              "0500000006000000"
              "0000");
    EXPECT_EQ(poll_cpu_stats(&stats, &sampler, proc.get()), sample_result::TAKEN);
    const std::string second = samples().substr(first.size());
    EXPECT_EQ(hex(second.substr(80, 2)), "0000");
    EXPECT_THAT(second.substr(84), HasSubstr("org.example.browser"));
    EXPECT_THAT(second.substr(84), Not(HasSubstr("kthreadd"))) << "the root cpuset is not reported";
    EXPECT_THAT(hex(second), HasSubstr("01932701"
                                       "0500000006000000"));
}

// ---- The thread

TEST_F(CpuCollector, EndsByItselfWhenASourceFailsAtTheStartOrThreeTimes) {
    struct {
        file_tree files;
        const char* removed;
        int notify;
        const char* logged;
        size_t times;
        uint64_t took_ms;
    } const cases[] = {
        {{{CPU_DIR + std::string("possible"), "0\n"}},
         nullptr,
         0,
         "failed to get number of cpus\n",
         1,
         0},
        {{{CPU_DIR + std::string("possible"), "0-1\n"}}, "/proc/stat", 0, STARVED, 3, 3000},
        {{{"/proc/stat", "cpu\n1\n2\n"}}, "cpu1/cpufreq/scaling_cur_freq", 0, STARVED, 3, 3000},
        {{}, "cpu1/cpufreq/scaling_cur_freq", 1, "cpu1 inotify_add_watch failed. err:2\n", 3, 3000},
    };
    for (const auto& c : cases) {
        put_files(c.files);
        if (c.removed) fs::remove(fs::path(CPU_DIR) / c.removed);
        row.stop.raised = 0;
        uint64_t ignored;
        (void)!read(row.stop.fd, &ignored, sizeof ignored);
        row.notify = c.notify;
        platform_test_clear_log();
        fs::remove_all(RECORD_DIR);
        const uint64_t begin_ms = vexastats_mono_time_ms();
        EXPECT_EQ(cpu_monitor(&row), 0);
        EXPECT_TRUE(stop_flag_is_raised(row.stop));
        EXPECT_EQ(platform_test_log_count(c.logged), c.times) << c.logged;
        EXPECT_EQ(vexastats_mono_time_ms() - begin_ms, c.took_ms) << c.logged;
    }
}

TEST_F(CpuCollector, StopEndsTheWaitForAChangeAtOnce) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    row.notify = 1;
    start();
    park();
    stop();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(platform_test_log_count("cpu_monitor: failed to read. err:4\n"), 1u);
    EXPECT_EQ(samples(), "");
    EXPECT_THAT(file_text("/data/vendor/vexa/down/2/2-1.1-cpustats.cfg.req"),
                HasSubstr("requestType=1\nrequestTimer=31536000\nconnType=1\nconnTimer=360\n"));
}

TEST_F(CpuCollector, ChangeOfAnyCoresFrequencyGivesOneSample) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    row.notify = 1;
    start();
    for (int i = 0; i < 3; ++i) {
        park();
        const size_t before = samples().size();
        overwrite(frequency_file(i % 2), "300000\n");
        ASSERT_TRUE(wait_for_change({RECORD_DIR}, [&] { return samples().size() > before; }));
        park();
        platform_test_advance_ms(10000);  // the pause behind a sample
    }
    stop();
}

TEST_F(CpuCollector, EarlyStartOnASilentKernelTurnsToPeriodicSamplingForGood) {
    platform_test_set_boot_ms(119999);
    row.notify = 1;
    row.interval = 500;
    row.no_supported_kernel = 1;  // found in an earlier boot
    platform_test_set_clock(platform_test_clock::MANUAL);
    start();
    park();
    EXPECT_EQ(row.no_supported_kernel, 0);
    platform_test_advance_ms(299999);
    park();
    EXPECT_EQ(samples(), "");
    platform_test_advance_ms(1);
    ASSERT_TRUE(platform_test_wait_log("cpu_monitor: inotify timed out. Disable it.\n",
                                       EVENT_LIMIT.count()));
    park();
    EXPECT_EQ(samples().size(), 84u);
    EXPECT_EQ(row.notify, 0);
    EXPECT_EQ(row.interval, 60000);
    EXPECT_THAT(file_text(row.cfg_file),
                HasSubstr("interval=500;threshold=300000;notify=1;no_supported_kernel=1\n"));

    // The next load, five days later, is of a file that could not keep what was found.
    put_files(
        {{row.cfg_file,
          "clientid=2;size=65536;interval=400;threshold=300000;notify=1;no_supported_kernel=0\n"}});
    platform_test_advance_ms(432000001);
    ASSERT_TRUE(wait_for_change({fs::path(row.cfg_file).parent_path()}, [this] {
        return file_text(row.cfg_file)
                   .find(
                       "interval=400;threshold=300000;notify=1;no_supported_"
                       "kernel=1\n") != std::string::npos;
    }));
    park();
    EXPECT_EQ(row.notify, 0) << "it would wait for ever";
    EXPECT_EQ(row.interval, 60000);
    stop();
}

TEST_F(CpuCollector, LateStartOnASilentKernelNeverWaits) {
    put_files(
        {{row.cfg_file,
          "clientid=2;size=65536;interval=500;threshold=300000;notify=1;no_supported_kernel=1\n"}});
    platform_test_set_boot_ms(120000);
    platform_test_set_clock(platform_test_clock::MANUAL);
    start();
    park();
    EXPECT_EQ(row.no_supported_kernel, 1);
    EXPECT_EQ(row.notify, 0);
    EXPECT_EQ(row.interval, 60000);
    EXPECT_EQ(samples().size(), 84u);
    stop();
}

// Everything in the dropbox, and the record.
std::string everything_stored() {
    std::string stored;
    for (const std::string& name : list_dir(UP_DIR)) {
        stored += gunzip(file_text(fs::path(UP_DIR) / name).substr(53));
    }
    return stored + samples();
}

// How often a sample of that time, in tenths of a second, stands there.
size_t times_stored(const std::string& stored, uint32_t stamp) {
    std::string head = bytes("00000000 02000000 01000000 02000000");
    memcpy(head.data(), &stamp, sizeof stamp);
    size_t count = 0;
    for (size_t at = 0; (at = stored.find(head, at)) != stored.npos; ++at) ++count;
    return count;
}

struct FullDisk : CpuCollector {
    static constexpr char DISK[] = "/data/vendor";
    static constexpr char FILLER[] = "/data/vendor/filler";
    void SetUp() override {
        ASSERT_EQ(mount("small", DISK, "tmpfs", MS_NOSUID | MS_NODEV, "size=256k"), 0);
        CpuCollector::SetUp();
    }
    void TearDown() override {
        CpuCollector::TearDown();
        umount2(DISK, MNT_DETACH);
    }
    // A sample every ten seconds, each a little different.
    void sample_for(int64_t time_ms) {
        for (; time_ms > 0; time_ms -= 10000) {
            const std::string times = std::to_string(rnd()) + " " + std::to_string(rnd()) + " ";
            put_files(
                {{"/proc/stat", "cpu 9\ncpu0 1 2 3 4 5 6 7\ncpu1 1 2 3 4 5 " + times + "\n"}});
            platform_test_advance_ms(10000);
            park();
        }
    }
    static void fill() {
        std::ofstream filler(FILLER);
        while (filler << std::string(1024, 'x') << std::flush) continue;
    }
    std::minstd_rand rnd;
};

TEST_F(FullDisk, HourOfItCostsOnlyTheSamplesOfThatHourAndFewAttempts) {
    row.size = 400;
    platform_test_set_clock(platform_test_clock::MANUAL);
    start();
    park();
    const auto now_tenths = [] { return static_cast<uint32_t>(vexastats_uptime_ms() / 100); };
    const uint32_t begin = now_tenths();
    sample_for(minutes_ms(30));
    EXPECT_GT(list_dir(UP_DIR).size(), 3u);
    const uint32_t full = now_tenths();
    fill();
    platform_test_clear_log();
    sample_for(minutes_ms(60));
    const size_t attempts =
        platform_test_log_count("prepare_cpu_stats: failed to write file. cnt:0\n");
    EXPECT_GT(attempts, 20u) << "the disk was not full";
    EXPECT_LT(attempts, 90u) << "the phone was kept awake";
    fs::remove(FILLER);
    const uint32_t free = now_tenths();
    sample_for(minutes_ms(30));
    stop();

    const std::string stored = everything_stored();
    const uint32_t longest_pause = 600;
    for (uint32_t at = begin; at <= now_tenths(); at += 100) {
        const size_t count = times_stored(stored, at);
        EXPECT_LE(count, 1u) << at;
        if (at <= full || at > free + longest_pause) {
            EXPECT_EQ(count, 1u) << at;
        }
    }
}

// Whatever happens to its storage, and however often, the collector goes on once it is well again.
struct StorageTrouble : CpuCollector {
    void TearDown() override {
        limit_file_size(RLIM_INFINITY);
        CpuCollector::TearDown();
    }
    void outlives(const char* failure, const std::function<void()>& mend) {
        if (!thread.joinable()) start();
        for (int i = 0; i < 8; ++i) {
            ASSERT_TRUE(platform_test_wait_log(failure, EVENT_LIMIT.count()));
            platform_test_clear_log();
        }
        EXPECT_FALSE(stop_flag_is_raised(row.stop));
        mend();
        ASSERT_TRUE(wait_for_change({UP_DIR}, [] { return list_dir(UP_DIR).size() >= 2; }));
        stop();
    }
    void limit_file_size(rlim_t size) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{.rlim_cur = size, .rlim_max = RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
};

TEST_F(StorageTrouble, FailedHandOversNeverSilenceIt) {
    row.size = 300;
    fs::permissions(UP_DIR, fs::perms::owner_read);
    outlives(STARVED, [] { fs::permissions(UP_DIR, fs::perms::owner_all); });
}

TEST_F(StorageTrouble, RecordThatCannotBeOpenedAtTheStartIsTriedAgainLaterAndLater) {
    put_files({{RECORD_DIR, "no directory"}});
    platform_test_set_clock(platform_test_clock::MANUAL);
    start();
    size_t attempts = 1;
    for (const int64_t pause_ms : {1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000}) {
        park();
        platform_test_advance_ms(pause_ms - 1);
        park();
        EXPECT_EQ(platform_test_log_count("failed to open record file for cpu\n"), attempts++);
        platform_test_advance_ms(1);
    }
    park();
    fs::remove(RECORD_DIR);
    platform_test_advance_ms(60000);
    park();
    EXPECT_EQ(samples().size(), 84u);
    stop();
}

TEST_F(StorageTrouble, RecordThatCannotBeOpenedAgainNeverSilencesIt) {
    row.size = 300;
    put_files({{RECORD, ""}});
    platform_test_set_clock(platform_test_clock::MANUAL);
    start();
    park();
    fs::permissions(RECORD, fs::perms::owner_read);
    fs::permissions(RECORD_DIR, fs::perms::owner_read | fs::perms::owner_exec);
    platform_test_set_clock(platform_test_clock::AUTO);
    outlives("failed to open record file for cpu\n", [] {
        fs::permissions(RECORD_DIR, fs::perms::owner_all);
        fs::permissions(RECORD, fs::perms::owner_all);
    });
}

TEST_F(StorageTrouble, FullDiskNeverSilencesIt) {
    row.size = 300;
    limit_file_size(100);
    outlives(STARVED, [this] { limit_file_size(RLIM_INFINITY); });
}

}  // namespace
