// The GPU collector in the whole daemon: from consent and a change of the load to the upload.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gpu_record.h"
#include "scenario/daemon_process.h"
#include "scenario/driven_scenario.h"
#include "scenario/uploads.h"

namespace {

// Idle, busy for two minutes, idle again; the stop finds it waiting for a change.
TEST(GpuScenario, GpuThatGetsBusyIsSampledIntoUploads) {
    phone_reset();
    const driven_result run = play(R"(
write sys/class/kgsl/kgsl-3d0/gpu_busy_percentage 00%
optin 1
deliver down/1/gpustats.cfg clientid=1;size=500;interval=100;threshold=10;notify=1
at 20s write sys/class/kgsl/kgsl-3d0/gpu_busy_percentage 37%
at 140s write sys/class/kgsl/kgsl-3d0/gpu_busy_percentage 00%
at 150s expect-quiet
at 200s signal TERM
)");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.lines_with("gpu_monitor: "), testing::StartsWith("22:16:40.000"));
    const std::vector<taken_upload> uploads = take_uploads(1);
    EXPECT_GE(uploads.size(), 3u);
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
}

}  // namespace
