// The GPU collector in the whole daemon: from consent and a change of the load to the upload.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "gpu_record.h"
#include "scenario/daemon_process.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr char BUSY[] = "/sys/class/kgsl/kgsl-3d0/gpu_busy_percentage";

// As the kernel does it: a reader in between sees the old value or the new one.
void set_busy(const std::string& text) {
    std::fstream(BUSY, std::ios::in | std::ios::out) << text << std::flush;
}

class GpuScenario : public ::testing::Test {
  protected:
    void SetUp() override {
        phone_reset();
        set_busy("00%\n");
        phone_set_clock("speed=20");
        deliver(1, "gpustats.cfg", "clientid=1;size=500;interval=100;threshold=10;notify=1\n");
        opt_in(1);
    }
    static uintmax_t record_size() {
        std::error_code missing;
        const auto size = fs::file_size(std::string(STATS_DIR) + "/1/gpustats.tmp", missing);
        return missing ? 0 : size;
    }
};

TEST_F(GpuScenario, GpuThatGetsBusyIsSampledIntoUploads) {
    daemon_process daemon;
    const std::string config = std::string(STATS_DIR) + "/1/.gpustats.cfg";
    ASSERT_TRUE(eventually([&] { return fs::exists(config) && record_size() > 0; }));
    std::vector<taken_upload> uploads;
    ASSERT_TRUE(eventually([&] {
        if (uploads.empty()) set_busy("37%\n");  // the daemon may not watch yet
        for (taken_upload& upload : take_uploads(1)) uploads.push_back(std::move(upload));
        return uploads.size() >= 3;
    })) << phone_log();
    for (const taken_upload& upload : uploads) {
        EXPECT_EQ(upload.name, "gpustats." + std::to_string(upload.file.header.realtime_ms));
        EXPECT_LE(upload.file.header.payload_len, 500 - 53u);
        const gpu_record record = gpu_record_decode(upload.file.payload);
        ASSERT_FALSE(record.samples.empty());
        for (const gpu_record_sample& sample : record.samples) {
            EXPECT_EQ(sample.busy_percent, 37u);
            EXPECT_EQ(sample.clock_hz, 257000000u);
            ASSERT_EQ(sample.levels.size(), 6u);
            EXPECT_EQ(sample.levels[0].freq_hz, 710000000u);
            EXPECT_EQ(sample.levels[5].time, 88120945u);
            EXPECT_EQ(sample.charge_counter_uah, 2494000);
        }
    }
    EXPECT_TRUE(daemon.stop());
}

TEST_F(GpuScenario, StopEndsItWhileItWaitsForAChange) {
    daemon_process daemon;
    ASSERT_TRUE(eventually([&] { return record_size() > 0; }));
    EXPECT_TRUE(daemon.stop(milliseconds(1500)));
}

}  // namespace
