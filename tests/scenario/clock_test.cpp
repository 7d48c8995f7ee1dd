// The daemon under clocks that start too early, are set late, jump, and change for the summer.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>

#include "scenario/daemon_process.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr uint64_t YEAR_MS = 365ull * 24 * 3600 * 1000;
constexpr uint64_t JULY_2023_MS = 1688169600000;  // 2023-07-01T00:00:00Z

class ClockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        phone_reset();
        fs::create_directories(std::string(DOWN_DIR) + "/2");
        deliver_quick_cpu_config(1500);
        opt_in(2);
    }

    // Takes uploads until one satisfies the condition.
    template <class Condition>
    static bool eventually_uploaded(Condition condition) {
        return eventually([&] {
            for (const taken_upload& upload : take_uploads(2)) {
                if (condition(upload)) return true;
            }
            return false;
        });
    }

    static double cpu_s(pid_t pid) {
        clockid_t clock = 0;
        timespec used = {};
        if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) return -1;
        return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    }
};

TEST_F(ClockTest, StartsAfterTwentySecondsWhenTheClockStaysIn1970) {
    phone_set_clock("real=1970-01-01T00:00:10Z boot=5 speed=20");
    const auto begin = std::chrono::steady_clock::now();
    daemon_process daemon;
    ASSERT_TRUE(eventually([] { return phone_log().find("started\n") != std::string::npos; }));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(taken.count() * 20, 19.5);
    EXPECT_LT(taken.count() * 20, 30);
    EXPECT_TRUE(daemon.stop());
}

TEST_F(ClockTest, StopInTheClockWaitEndsItAtOnce) {
    phone_set_clock("real=1970-01-01T00:00:10Z");
    daemon_process daemon;
    ASSERT_TRUE(eventually([] { return phone_log().find("property_set") != std::string::npos; }));
    EXPECT_TRUE(daemon.stop(milliseconds(1500)));
    EXPECT_TRUE(phone_log().ends_with("vexastatsd stopped\n"));
}

TEST_F(ClockTest, RecordBegunIn1970HasTheRightTimeOnceTheClockIsSet) {
    phone_set_clock("real=1970-01-01T00:00:10Z boot=5 speed=20");
    daemon_process daemon;
    ASSERT_TRUE(eventually([] { return fs::exists(std::string(STATS_DIR) + "/2/cpustats.tmp"); }));
    phone_set_clock("real=2023-07-01T00:00:00Z");
    EXPECT_TRUE(eventually_uploaded([](const taken_upload& upload) {
        const uint64_t ms = upload.file.header.realtime_ms;
        return ms > JULY_2023_MS - 200000 && ms < JULY_2023_MS + 200000;
    })) << phone_log();
    EXPECT_TRUE(daemon.stop());
}

TEST_F(ClockTest, JumpsOfTenYearsNeitherSpinNorStopTheSamples) {
    phone_set_clock("real=2023-07-01T00:00:00Z speed=20");
    daemon_process daemon;
    for (const char* jump :
         {"real=2033-07-01T00:00:00Z", "real=2013-07-01T00:00:00Z", "real=2023-07-01T00:00:00Z"}) {
        ASSERT_TRUE(eventually_uploaded([](const taken_upload&) { return true; }))
            << jump << phone_log();
        phone_set_clock(jump);
    }
    EXPECT_TRUE(eventually_uploaded([](const taken_upload& upload) {
        const uint64_t ms = upload.file.header.realtime_ms;
        return ms >= JULY_2023_MS && ms < JULY_2023_MS + YEAR_MS;
    }));
    const double before = cpu_s(daemon.pid());
    usleep(500000);
    EXPECT_LT(cpu_s(daemon.pid()) - before, 0.4) << "a clock that jumped must not keep it busy";
    EXPECT_TRUE(daemon.stop());
}

TEST_F(ClockTest, SummerTimeChangesShowInHeadersAndSamples) {
    phone_set_clock("real=2023-03-26T00:59:50Z speed=20");
    daemon_process daemon({"TZ=Europe/Berlin"});
    // The change can fall into the first record as well as into a later one.
    bool change_seen = false;
    const auto in_zone = [&](int16_t minutes) {
        return [&change_seen, minutes](const taken_upload& upload) {
            for (const cpu_record_sample& sample : upload.cpu().samples) {
                if (sample.timezone_min == 120) change_seen = true;
            }
            return upload.file.header.timezone_min == minutes;
        };
    };
    EXPECT_TRUE(eventually_uploaded(in_zone(60)));
    EXPECT_TRUE(eventually_uploaded(in_zone(120)));
    EXPECT_TRUE(change_seen);
    phone_set_clock("real=2023-10-29T00:59:50Z");
    EXPECT_TRUE(eventually_uploaded(in_zone(60)));
    EXPECT_TRUE(daemon.stop());
}

}  // namespace
