// The CPU collector: its start, its loop and its samples. What it shares with the GPU collector is
// tested in tests/sampling.
#include "collectors/cpu/cpu_stats.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <string>

#include "framework/time/clock.h"
#include "sampling/sampled_phone.h"
#include "support/gzip.h"

namespace fs = std::filesystem;

namespace {

constexpr char PROCESS_STAT[] = "/proc/4242/stat";

struct CpuCollector : testing::Test, sampled_phone {
    CpuCollector() : sampled_phone(CPU) {}

    // The process has used so many clock ticks.
    static void spend(int ticks) {
        put_files({{PROCESS_STAT,
                    "4242 (b) S 1 1 1 0 -1 4 5 6 7 8 " + std::to_string(ticks) + " 0 0 0 "}});
    }
    // What the record's last sample says of processes: "name load/class", the load times 500.
    std::string processes() const {
        const std::string bytes = record();
        const cpu_record found =
            cpu_record_decode({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
        std::string text;
        for (const auto& p : found.samples.back().processes)
            text += p.name + " " + std::to_string(p.load_x500) + "/" +
                    std::to_string(p.cpuset_class) + "\n";
        return text;
    }
};

// The first sample carries the traffic, the next one the process and its part of the traffic.
TEST_F(CpuCollector, SamplesStandInTheRecordByteForByte) {
    put_files({{"/proc/net/xt_qtaguid/stats", "header\n2 wlan0 0x0 10131 1 5 1 6 1\n"},
               {"/proc/4242/status", "Uid:\t10131\t1\t1\t1\n"},
               {"/proc/4243/cpuset", "/\n"},
               {"/sys/class/thermal/thermal_zone0/temp", "45000\n"},
               {"/sys/class/thermal/thermal_zone0/type", "a\n"},
               {"/proc/stat", "cpu 9\ncpu0 1 2 3 4 5 6 7\ncpu1 8 9 10 11 12 13 4294967295\n"}});
    const std::string values = bytes(
        "02000000 01000000 02000000 03000000 04000000 05000000 06000000 07000000"
        "08000000 09000000 0a000000 0b000000 0c000000 0d000000 ffffffff e0930400 20a10700"
        "d0f1d9ff 9a66 0100 6100 c8af0000");
    start();
    setenv("TZ", "NPT-5:45", 1);
    tzset();
    pass(10000);
    EXPECT_EQ(log(), "D vexastatsd: prepare_cpu_stats: timezone changed 345\n");
    EXPECT_EQ(hex(record()),
              hex(bytes("50c30000") + values + bytes("0100 01932701 05000000 06000000 0000") +
                  bytes("b4c30080 5901") + values + bytes("0000 0100") +
                  std::string("org.example.browser\0\0\0\2", 23) + std::string(48, '\0')));
}

TEST_F(CpuCollector, LoadIsTicksPerScanAndAScanNeedsMoreThanTenSeconds) {
    testing::internal::CaptureStdout();
    busy();
    spend(0);
    start();
    for (int i = 1; i <= 7; ++i) {
        spend(8 * i);
        pass(10000);  // it looks that often, and scans and samples when that is due
    }
    stop();
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        "Tick 2 PID 4242 org.example.browser CPU 16\nTick 3 PID 4242 org.example.browser CPU 16\n"
        "Tick 4 PID 4242 org.example.browser CPU 16\n");
    EXPECT_EQ(stamps(), "50000 50700") << "more than a minute apart";
    EXPECT_EQ(processes(), "org.example.browser 8000/2\n") << "16 ticks a scan";
}

TEST_F(CpuCollector, ScansWithoutAReadableListingAreLeftOut) {
    fs::permissions("/proc", fs::perms::owner_exec);
    start();
    fs::permissions("/proc", fs::perms::owner_all);
    EXPECT_EQ(log(), "E vexastatsd: Could not open /proc Error 13\n");
    pass(10000);
    EXPECT_EQ(stamps(), "50000") << "it sleeps for the whole interval";
    pass(50000);
    EXPECT_EQ(stamps(), "50000 50600");
}

TEST_F(CpuCollector, LoopWithoutConsentOrBehindAStopTakesNoSample) {
    cpu_stats stats;
    sampling_collector no_record{.row = row.get()};
    row->enabled = 0;
    EXPECT_EQ(poll_cpu_stats(&stats, &no_record, nullptr), sample_result::TAKEN);
    row->enabled = 1;
    EXPECT_EQ(poll_cpu_stats(&stats, &no_record, nullptr), sample_result::STORAGE_FAILED);
    stop_flag_raise(&row->stop);
    EXPECT_EQ(poll_cpu_stats(&stats, &no_record, nullptr), sample_result::TAKEN);
}

// ---- Waiting for a change

TEST_F(CpuCollector, EveryCoreIsWatchedAndChangesAtOnceGiveASampleEach) {
    row->notify = 1;
    start();
    write(frequency_file(1), "500000\n");
    park();
    idle();  // in the pause behind a sample nobody looks
    pass(10000);
    EXPECT_EQ(stamps(), "50000");
    platform_test_at_once([] {
        for (int core = 0; core < 2; ++core) write(frequency_file(core), "300000\n");
    });
    park();
    pass(10000);
    pass(10000);
    EXPECT_EQ(stamps(), "50000 50100 50200");
}

}  // namespace
