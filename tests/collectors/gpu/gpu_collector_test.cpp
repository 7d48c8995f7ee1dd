// The GPU collector: its sample, its loop, and when it takes a kernel for a silent one. What it
// shares with the CPU collector is tested in tests/sampling.
#include "collectors/gpu/gpu_collector.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <regex>
#include <string>

#include "collectors/gpu/gpu_sample.h"
#include "collectors/gpu/gpu_stats.h"
#include "framework/time/clock.h"
#include "sampling/sampled_phone.h"
#include "support/gzip.h"

namespace {

struct GpuCollector : testing::Test, sampled_phone {
    GpuCollector() : sampled_phone(GPU) {}
};

TEST_F(GpuCollector, SamplesStandInTheRecordByteForByte) {
    const std::string values =
        "25000000"
        "4082510f"
        "02000000"
        "80bd512a0100000002000000"
        "100000000800000000000000"
        "d0f1d9ff";
    row->notify = 0;
    busy();
    start();
    pass(1000);
    // Kathmandu is 345 minutes ahead: the first sample there says so, the next one no more.
    setenv("TZ", "NPT-5:45", 1);
    tzset();
    pass(1000);
    EXPECT_EQ(log(), "I vexastatsd: prepare_gpu_stats: timezone changed 345\n");
    pass(1000);
    EXPECT_EQ(hex(record()), "5ac30000" + values + "64c300805901" + values + "6ec30000" + values);
}

TEST_F(GpuCollector, SourceThatCannotBeReadOrIsNoNumberFailsTheSample) {
    const char* const damaged[][2] = {
        {"num_pwrlevels", "many\n"},        {"num_pwrlevels", "-1\n"},
        {"num_pwrlevels", "2147483647\n"},  {"num_pwrlevels", "3\n"},
        {"gpu_busy_percentage", "%\n"},     {"gpuclk", "fast\n"},
        {"gpu_available_frequencies", "1"}, {"gpu_clock_stats", " \n"},
    };
    const auto log_without = [this](const std::string& path, const char* text) {
        const std::string whole = file_text(path);
        text ? put_files({{path, text}}) : remove(path);
        row->notify = 0;
        start();
        pass(1000);
        put_files({{path, whole}});
        const std::string said =
            std::regex_replace(log(), std::regex("format. err:\\d+"), "format");
        EXPECT_EQ(record(), "");
        renew();
        return said;
    };
    const std::string failed = "E vexastatsd: failed to prepare gpu stats. err:-22\n";
    for (const auto& [name, text] : damaged)
        EXPECT_EQ(log_without(gpu(name), text), "E vexastatsd: Invalid file format\n" + failed)
            << text;
    for (const std::string name : {"num_pwrlevels", "gpu_busy_percentage", "gpuclk",
                                   "gpu_available_frequencies", "gpu_clock_stats"})
        EXPECT_EQ(log_without(gpu(name), nullptr), "E vexastatsd: failed to open " + gpu(name) +
                                                       ". err:2\nE vexastatsd: failed to read " +
                                                       gpu(name) + ". err:-22\n" + failed);
    for (const char* text : {static_cast<const char*>(nullptr), "empty\n"})
        EXPECT_TRUE(log_without(CHARGE_COUNTER, text)
                        .ends_with("E vexastatsd: failed to read bms cc\n" + failed));
}

TEST_F(GpuCollector, WordsOfAListAreNumbersOfAnyBaseAndMayBeTooMany) {
    gpu_level levels[5] = {};
    ASSERT_TRUE(parse_gpu_list("\t0x1F 010  12x - 9 more", &gpu_level::time, levels, 5));
    const uint64_t expected[] = {31, 8, 12, 0, 9};
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(levels[i].time, expected[i]) << i;

    // No level needs no word; a page holds no more words than this.
    for (const size_t count : {0, 2048}) {
        std::string words = count == 0 ? "1" : "";
        for (size_t i = 0; i < count; ++i) words += "1 ";
        put_files({{gpu("num_pwrlevels"), std::to_string(count)},
                   {gpu("gpu_available_frequencies"), words},
                   {gpu("gpu_clock_stats"), words}});
        row->notify = 0;
        row->size = 1 << 20;
        start();
        pass(1000);
        EXPECT_EQ(record().size(), 20 + 12 * count);
        renew();
        remove(own());
    }
}

TEST_F(GpuCollector, LoopSleepsBeforeEverySampleAndEndsOnceItIsIdleTwiceInARow) {
    start();
    pass(600000);
    busy();
    park();
    EXPECT_EQ(stamps(), "");
    for (const bool is_busy : {true, false, true, false, false}) {
        is_busy ? busy() : idle();
        pass(1000);
    }
    EXPECT_EQ(stamps(), "56010 56020 56030 56040 56050");
    pass(600000);
    row->threshold = 37;
    busy();  // no more than the threshold counts as idle
    park();
    for (int i = 0; i < 3; ++i) pass(1000);
    EXPECT_EQ(stamps(), "56010 56020 56030 56040 56050 62060 62070");
}

TEST_F(GpuCollector, ConsentThatGoesInASleepEndsTheLoopWithoutASample) {
    row->thread_func = [](collector_info* of) {
        gpu_stats stats;
        sampling_collector no_record{.row = of};
        return sample_result_number(poll_gpu_stats(&stats, &no_record));
    };
    start();
    opt_out();
    platform_test_advance_ms(1000);
    join();
    EXPECT_EQ(log(), "I vexastatsd: gpu_collector disabled\n");
    EXPECT_EQ(result, 0);
}

// With the display off a kernel that reports nothing proves nothing.
TEST_F(GpuCollector, SilentKernelIsGivenUpOnlyWhileTheDisplayIsOn) {
    platform_test_set_boot_ms(119999);
    put_files({{BACKLIGHT, "0\n"}});
    start();
    pass(300000);
    put_files({{BACKLIGHT, "01\n"}});
    pass(299999);
    EXPECT_EQ(log(), "") << "the wait begins afresh";
    pass(1);
    EXPECT_EQ(log(), "I vexastatsd: gpu_monitor: inotify timed out. Disable it.\n");
    EXPECT_EQ(row->notify, 0);
}

TEST_F(GpuCollector, EventAfterAnEarlyStartMakesTheWaitsUnbounded) {
    platform_test_set_boot_ms(119999);
    start();
    idle();
    park();
    for (int i = 0; i < 2; ++i) pass(1000);
    pass(days_ms(1));
    EXPECT_EQ(log(), "");
    EXPECT_EQ(row->notify, 1);
}

}  // namespace
