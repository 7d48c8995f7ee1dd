// Raising events and sleeping on them, in two threads: nothing raised is lost, and nobody is woken
// for nothing.
#include "mps_events/mps_events.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <thread>

#include "platform_test.h"

namespace {

// Between a bit and its signal, and before the wait; read once.
[[maybe_unused]] const int g_window = setenv("VEXA_TEST_WINDOW_US", "200", 1);

TEST(MpsEvents, EarlierSignalsEndTheSleepOnce) {
    stop_flag stop;
    ASSERT_EQ(stop_flag_open(&stop), 0);
    mps_clear_event(UINT32_MAX);
    for (const auto raise : {mps_campaign_event, mps_set_event}) raise(MPS_EVENT_CAMPAIGN_START);
    mps_signal_collector();
    EXPECT_EQ(mps_events(), 256u);
    EXPECT_EQ(mps_signal_count(), 3u);
    mps_wait_for_signal(stop);
    EXPECT_EQ(mps_signal_count(), 0u);
    std::thread sleeper([&] { mps_wait_for_signal(stop); });
    EXPECT_TRUE(platform_test_wait_log("mps_main: Wait on signal\n", 20000));
    stop_flag_raise(&stop);
    sleeper.join();
}

// Every bit is served after its last raise; LAST, raised behind all others, ends the collector.
TEST(MpsEvents, NoRaiseIsLost) {
    constexpr uint32_t LAST = 1u << 16;
    const stop_flag stop;
    std::atomic<int> raised[2] = {};
    int served[2] = {};  // how often it had been raised when it was served last
    std::thread raiser([&] {
        for (uint32_t i = 0; i < 2000; i++) {
            ++raised[i % 2];
            mps_set_event(1u << i % 2);
            if (i % 1000 == 0) platform_test_clear_log();
        }
        mps_set_event(LAST);
    });
    for (uint32_t events = 0; (events & LAST) == 0;) {
        mps_wait_for_signal(stop);
        events = mps_events();
        mps_clear_event(events);
        for (uint32_t bit = 0; bit < 2; ++bit)
            if (events >> bit & 1) served[bit] = raised[bit];
    }
    raiser.join();
    for (const int bit : {0, 1}) EXPECT_EQ(served[bit], raised[bit]);
}

}  // namespace
