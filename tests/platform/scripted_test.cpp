// The scripted platform itself: other tests are worth what its clock is.
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "platform/clock.h"
#include "platform_test.h"
#include "support/events.h"

namespace {

constexpr int64_t HOUR_MS = 3600 * 1000;

int64_t clock_ms(clockid_t clock) {
    timespec now = {};
    EXPECT_EQ(platform_clock_gettime(clock, &now), 0);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

TEST(ScriptedClock, AutoWaitMovesAllClocksToItsDeadline) {
    EXPECT_EQ(platform_poll(nullptr, 0, HOUR_MS), 0);
    EXPECT_EQ(clock_ms(CLOCK_MONOTONIC), PLATFORM_TEST_MONO_MS + HOUR_MS);
    EXPECT_EQ(clock_ms(CLOCK_BOOTTIME), PLATFORM_TEST_BOOT_MS + HOUR_MS);
    EXPECT_EQ(clock_ms(CLOCK_REALTIME), PLATFORM_TEST_REAL_MS + HOUR_MS);
}

TEST(ScriptedClock, ReadyDescriptorEndsAWaitBeforeAnyTimePasses) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pollfd readable{.fd = ends[0], .events = POLLIN, .revents = 0};
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    for (const auto mode : {platform_test_clock::AUTO, platform_test_clock::MANUAL}) {
        platform_test_set_clock(mode);
        EXPECT_EQ(platform_poll(&readable, 1, HOUR_MS), 1);
        EXPECT_EQ(clock_ms(CLOCK_MONOTONIC), PLATFORM_TEST_MONO_MS);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST(ScriptedClock, ManualWaitEndsWhenItsTimeHasComeAndNotBefore) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    std::thread waiting([] {
        EXPECT_EQ(platform_poll(nullptr, 0, HOUR_MS), 0);
        EXPECT_GE(clock_ms(CLOCK_MONOTONIC), PLATFORM_TEST_MONO_MS + HOUR_MS);
    });
    ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
    platform_test_advance_ms(HOUR_MS - 1);
    ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count())) << "one millisecond is left";
    platform_test_set_real_ms(0);
    EXPECT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()))
        << "a jump of the wall clock ends no wait";
    platform_test_advance_ms(1);
    EXPECT_FALSE(platform_test_wait_parked(1, 0)) << "a thread that was let go is no longer parked";
    waiting.join();
}

}  // namespace
