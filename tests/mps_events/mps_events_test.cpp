// Raising events and sleeping on them, in two threads: nothing raised is lost, and nobody is woken
// for nothing.
#include "mps_events/mps_events.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <thread>

#include "platform_test.h"

namespace {

constexpr int RAISES = 100000;
constexpr uint32_t LAST = 1u << 16;

class MpsEvents : public testing::Test {
  protected:
    void SetUp() override {
        setenv("VEXA_TEST_WINDOW_US", "3", 1);  // between a bit and its signal, and before the wait
        ASSERT_EQ(stop_flag_open(&stop), 0);
        mps_clear_event(UINT32_MAX);
    }

    stop_flag stop;
};

TEST_F(MpsEvents, EarlierSignalsAndAStopEndTheSleep) {
    mps_campaign_event(MPS_EVENT_CAMPAIGN_START);
    mps_set_event(MPS_EVENT_CAMPAIGN_START);
    EXPECT_EQ(mps_events(), 256u);
    EXPECT_EQ(mps_signal_count(), 2u);
    mps_wait_for_signal(stop);
    EXPECT_EQ(mps_signal_count(), 0u);
    EXPECT_EQ(platform_test_log_count("mps_set_event: Setting event 256"), 2u);
    EXPECT_EQ(platform_test_log_count("mps_main: No Wait on signal\n"), 1u);
    std::thread sleeper([&] { mps_wait_for_signal(stop); });
    EXPECT_TRUE(platform_test_wait_log("mps_main: Wait on signal\n", 20000));
    stop_flag_raise(&stop);
    sleeper.join();
}

// Every bit is served after its last raise; LAST, raised behind all others, ends the collector.
TEST_F(MpsEvents, NoRaiseIsLost) {
    constexpr uint32_t BITS[] = {MPS_EVENT_KBR_READY, MPS_EVENT_TIMER, MPS_EVENT_CAMPAIGN_STOP};
    std::atomic<int> raised[3] = {};
    int last_served[3] = {};  // how often it had been raised when it was served last
    std::thread raiser([&] {
        for (int i = 0; i < RAISES; i++) {
            ++raised[i % 3];
            mps_set_event(BITS[i % 3]);
            if (i % 1000 == 0) platform_test_clear_log();
        }
        mps_set_event(LAST);
    });
    for (uint32_t events = 0; (events & LAST) == 0;) {
        mps_wait_for_signal(stop);
        events = mps_events();
        for (int bit = 0; bit < 3; bit++) {
            if ((events & BITS[bit]) == 0) continue;
            mps_clear_event(BITS[bit]);
            EXPECT_GT(raised[bit], 0);
            last_served[bit] = raised[bit];
        }
    }
    raiser.join();
    for (int bit = 0; bit < 3; bit++) EXPECT_EQ(last_served[bit], raised[bit]);
}

}  // namespace
