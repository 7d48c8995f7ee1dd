// What the two sampling collectors share, in both.
#include "sampling/sampling.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>

#include "sampling/sampled_phone.h"
#include "support/dialogue.h"
#include "support/size_limit.h"

namespace fs = std::filesystem;

namespace {
std::atomic<bool> g_no_notifier{false};
std::atomic<int> g_growths{0};  // of arrays until one fails; 0: none does
}  // namespace
extern "C" int __real_inotify_init1(int flags);
extern "C" int __wrap_inotify_init1(int flags) {
    if (!g_no_notifier) return __real_inotify_init1(flags);
    errno = EMFILE;
    return -1;
}
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void* __wrap_realloc(void* block, size_t size) {
    if (g_growths == 0 || --g_growths > 0) return __real_realloc(block, size);
    errno = ENOMEM;
    return nullptr;
}

namespace {

TEST(SampleHead, ZoneIsComparedWithTheRecordsFirstAndThenWithTheLastSamples) {
    collector_info row;
    row.hdr.timezone_min = 345;
    setenv("TZ", "NPT-5:45", 1);
    tzset();
    timezone_memory memory;
    EXPECT_FALSE(sampling_timezone(&memory, row).changed);
    setenv("TZ", "NST3:30", 1);
    tzset();
    const timezone_state west = sampling_timezone(&memory, row);
    EXPECT_EQ(west.offset_min, -210);
    EXPECT_TRUE(west.changed);
    EXPECT_FALSE(sampling_timezone(&memory, row).changed);
}

TEST(SampleHead, StampKeepsItsHighestBitForTheZone) {
    platform_test_set_boot_ms((int64_t{1} << 31) * 100 + 799);
    EXPECT_EQ(sampling_time_stamp(false), 7u);
    EXPECT_EQ(sampling_time_stamp(true), 0x80000007u);
}

struct Sampling : testing::TestWithParam<uint32_t>, sampled_phone {
    Sampling() : sampled_phone(GetParam()) {}
    ~Sampling() override { size_limit::set(RLIM_INFINITY); }

    bool is_gpu() const { return GetParam() == GPU; }
    std::string name() const { return is_gpu() ? "gpu" : "cpu"; }
    std::string line(const std::string& text) const {
        std::string line = text;
        for (size_t at; (at = line.find('@')) != line.npos;) line.replace(at, 1, name());
        return line + "\n";
    }
    std::string settings() const {
        return "interval=" + std::to_string(row->interval) +
               " notify=" + std::to_string(row->notify) +
               " silent=" + std::to_string(row->no_supported_kernel);
    }
    std::string config(const std::string& values, int size = 65536) const {
        return "clientid=" + std::to_string(GetParam()) + ";size=" + std::to_string(size) + ";" +
               values + "\n";
    }
    std::string saved(const std::string& values) const {
        return line("#@_collector config file. Version: 1.2") + config(values);
    }
    std::string record_name() const { return name() + "stats.tmp"; }
    // The GPU collector sleeps before a sample, the CPU collector behind it.
    void sleep_before_sample() {
        if (is_gpu()) pass(row->interval);
    }
};
const auto BOTH = testing::Values(sampled_phone::GPU, sampled_phone::CPU);
std::string name_of(const testing::TestParamInfo<uint32_t>& kind) {
    return kind.param == sampled_phone::GPU ? "Gpu" : "Cpu";
}
INSTANTIATE_TEST_SUITE_P(Both, Sampling, BOTH, name_of);

// ---- Start

TEST_P(Sampling, StartEndsWithoutANotifier) {
    g_no_notifier = true;
    start();
    EXPECT_TRUE(ended());
    EXPECT_TRUE(stop_flag_is_raised(row->stop));
    const std::string failure = is_gpu() ? "E vexastatsd: failed inotify_init err:24\n"
                                         : "E vexastatsd: failed inotify_init. err:24\n";
    EXPECT_TRUE(log().ends_with(failure));
    g_no_notifier = false;
}

TEST_P(Sampling, StopEndsTheFirstWaitAfterAnEarlyStart) {
    platform_test_set_boot_ms(100000);
    row->notify = 1;
    start();
    stop();
    EXPECT_EQ(log(), line("I vexastatsd: @_collector Terminated\n"
                          "E vexastatsd: failed to poll wait. err:4"));
    EXPECT_EQ(result, 0);
}

TEST_P(Sampling, ParametersAreLoadedAgainOnceMoreThanFiveDaysArePast) {
    row->notify = 0;
    row->interval = 60000;
    start();
    write(row->dl_cfg_file,
          config("interval=60000;threshold=0;notify=0;no_supported_kernel=0", 4242));
    pass(60000);
    pass(days_ms(5) - 60000);
    EXPECT_EQ(row->size, 65536);
    for (int i = 0; i < 2; ++i) pass(60000);  // the GPU has to be found idle twice
    EXPECT_EQ(row->size, 4242);
    EXPECT_FALSE(fs::exists(row->dl_cfg_file));
}

TEST_P(Sampling, EveryFailedAllocationIsSaidAndTheNextSampleTaken) {
    const std::string long_name(200, 'n');
    put_files({{"/sys/class/thermal/thermal_zone0/temp", "1"},
               {"/sys/class/thermal/thermal_zone0/type", long_name},
               {"/sys/class/thermal/thermal_zone1/temp", "1"},
               {"/sys/class/thermal/thermal_zone1/type", "another one"},
               {"/proc/4242/cmdline", long_name + long_name},
               {"/proc/net/xt_qtaguid/stats",
                "header\n2 wlan0 0x0 1 1 5 1 6 1\n3 wlan0 0x0 2 1 5 1 6 1\n"}});
    const auto fail_each = [this](const std::string&) {
        std::string said;
        for (int growth = 1, left = 0; left == 0; ++growth) {
            row->notify = 0;
            row->interval = 1000;
            g_growths = growth;
            start();
            for (int i = 0; i < 4; ++i) pass(1000);
            left = g_growths.exchange(0);
            EXPECT_TRUE(ended() || !stamps().empty()) << growth;
            said += std::to_string(growth) + ".\n" + log();
            renew();
            remove(own());
        }
        return said;
    };
    expect_dialogue("sampling/" + name() + "_without_memory", fail_each);
}

// ---- Storage that fails never ends it, and costs a pause that grows

TEST_P(Sampling, StorageThatFailsIsTriedAgainLaterAndLaterUntilItIsWell) {
    const std::string no_record = line("E vexastatsd: failed to open record file for @");
    const std::string no_sample = line("E vexastatsd: failed to prepare @ stats. err:-22");
    using fs::perms;
    const auto forbid = [this] { fs::permissions(own(), perms::owner_read | perms::owner_exec); };
    const auto allow = [this] { fs::permissions(own(), perms::owner_all); };
    const struct {
        const char* what;
        std::function<void()> before, after;  // the start
        std::function<void()> mend;
        std::string failure;
        int64_t first_ms;  // the pause behind the first one
    } cases[] = {
        {"beginning", [this] { write(own(), ""); }, {}, [this] { remove(own()); }, no_record, 1000},
        {"hand-over", {}, forbid, allow, no_sample, 1000},
        {"append",
         [] { size_limit::set(100); },
         {},
         [] { size_limit::set(RLIM_INFINITY); },
         no_sample,
         1000},
        // The hand-over that fails before has cost the first pause.
        {"opening again",
         {},
         [&] { fs::permissions(own(record_name()), perms::owner_read), forbid(); },
         [&] { allow(), fs::permissions(own(record_name()), perms::owner_all); },
         no_record,
         2000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        row->notify = 0;
        row->interval = 100;
        row->size = 300;
        if (c.before) c.before();
        start();
        if (c.after) c.after();
        std::string said = log();
        for (int i = 0; i < 300 && !said.ends_with(c.failure); ++i) {
            pass(100);
            said = log();
        }
        for (const int64_t pause_ms : {1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000}) {
            if (pause_ms < c.first_ms) continue;
            EXPECT_TRUE(said.ends_with(c.failure)) << pause_ms << " ms follow on: " << said;
            pass(pause_ms - 1);
            EXPECT_EQ(log(), "") << "within " << pause_ms << " ms";
            pass(1);
            if (c.failure == no_sample) sleep_before_sample();
            said = log();
        }
        EXPECT_FALSE(ended());
        c.mend();
        pass(60000);
        sleep_before_sample();
        EXPECT_NE(stamps(), "");
        renew();
        remove(own());
    }
}

}  // namespace
