// The owner's consent: what a pass over the rows changes, and who waits for it.
#include "framework/row/optout.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "framework/time/clock.h"
#include "support/events.h"
#include "support/record_phone.h"

namespace fs = std::filesystem;

namespace {

struct OptOut : testing::Test, record_phone {
    OptOut() { row.running = 1; }

    // What a pass makes of the row: "enabled terminate", and what it logs.
    std::string pass(bool enabled, int terminate, bool is_shutdown) {
        row.enabled = enabled;
        row.terminate = terminate != 0;
        optout_context context{.table = &row, .count = 1};
        optout_handle(&context, is_shutdown);
        return std::to_string(row.enabled) + " " + std::to_string(row.terminate) + " " + log();
    }
};

TEST_F(OptOut, WaitEndsWithConsentOrTermination) {
    for (const bool is_shutdown : {false, true}) {
        row.enabled = row.terminate = 0;
        std::thread waiting([this] { vexastats_wait_optin(&row); });
        (void)pass(false, 0, is_shutdown);
        waiting.join();
        EXPECT_EQ(row.enabled, !is_shutdown);
        EXPECT_FALSE(row.terminate) << "the wait takes it back";
    }
    // A stop wakes it, too; most of the rounds find it asleep.
    for (int round = 0; round < 20; ++round) {
        row.enabled = row.terminate = 0;
        row.stop.raised = 0;
        std::thread waiting([this] { vexastats_wait_optin(&row); });
        usleep(200);
        optout_context context{.table = &row, .count = 1};
        optout_stop_rows(&context);
        waiting.join();
    }
    row.enabled = row.terminate = 1;
    vexastats_wait_optin(&row);
    EXPECT_TRUE(row.terminate) << "there was no wait";
    vexastats_wait_optin(nullptr);
}

TEST_F(OptOut, PropertyIsWaitedForInRoundsOfFiveSeconds) {
    const std::string waiting =
        "I vexastatsd: vexastats_wait_prop_enalbled() waiting for vendor.orb.vexa.enabled...\n";
    const int64_t begin = vexastats_mono_time_ms();
    const auto waited_s = [&] { return (vexastats_mono_time_ms() - begin) / 1000; };
    EXPECT_EQ(vexastats_wait_prop_enalbled(0, row.stop), -22);
    EXPECT_EQ(log(), "I vexastatsd: vexastats_wait_prop_enalbled() wait time expired 0\n");
    platform_test_set_property("vendor.orb.vexa.enabled", "11");
    EXPECT_EQ(vexastats_wait_prop_enalbled(10, row.stop), -22);
    EXPECT_EQ(waited_s(), 10);
    EXPECT_EQ(log(), waiting + waiting +
                         "I vexastatsd: vexastats_wait_prop_enalbled() wait time expired 10\n");
    platform_test_set_property("vendor.orb.vexa.enabled", "1");
    EXPECT_EQ(vexastats_wait_prop_enalbled(10, row.stop), 0);
    EXPECT_EQ(waited_s(), 10);
    EXPECT_EQ(log(), "");
    platform_test_set_property("vendor.orb.vexa.enabled", "0");
    platform_test_set_clock(platform_test_clock::MANUAL);
    int result = 0;
    std::thread waiting_thread([&] { result = vexastats_wait_prop_enalbled(10, row.stop); });
    ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
    platform_test_set_property("vendor.orb.vexa.enabled", "1");
    platform_test_advance_ms(5000);
    waiting_thread.join();
    EXPECT_EQ(result, 0) << "it looks again";
    EXPECT_EQ(log(), waiting);
    platform_test_set_property("vendor.orb.vexa.enabled", "0");
    row.stop.raised = 1;
    EXPECT_EQ(vexastats_wait_prop_enalbled(10, row.stop), -22);
    EXPECT_EQ(waited_s(), 15) << "a stop ends it";
    row.stop.raised = 0;
}

}  // namespace
