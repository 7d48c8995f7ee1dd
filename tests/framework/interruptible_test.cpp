// Stopping a thread in a library call that only something to read can end. The window between its
// look at the flag and the call is widened.
#include "framework/time/interruptible.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "support/events.h"

namespace {

using steady = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int STOPS = 500;
#else
constexpr int STOPS = 5000;
#endif

TEST(Interruptible, StopIsNeverLostBetweenTheFlagAndTheCall) {
    setenv("VEXA_TEST_WINDOW_US", "100", 1);
    std::mt19937 rnd(20170101);
    int in_the_call = 0;
    for (int i = 0; i < STOPS; ++i) {
        int log[2] = {-1, -1};
        ASSERT_EQ(pipe(log), 0);
        stop_flag stop;
        interruptible section;
        std::thread thread([&] {
            char line = 0;
            while (interruptible_enter(&section, stop)) (void)!read(log[0], &line, 1);
        });
        while (!section.inside) std::this_thread::yield();
        const auto when = steady::now() + std::chrono::microseconds(rnd() % 200);
        while (steady::now() < when) {
        }
        stop_flag_raise(&stop);
        // One line is enough at any moment: it waits for a read that is only about to begin.
        if (interruptible_is_inside(section)) {
            (void)!write(log[1], "", 1);
            ++in_the_call;
        }
        thread.join();
        EXPECT_FALSE(interruptible_is_inside(section));
        close(log[0]);
        close(log[1]);
    }
    printf("%d stops, %d of them in the call\n", STOPS, in_the_call);
}

TEST(Interruptible, NobodyEntersOnceTheFlagIsRaised) {
    stop_flag stop;
    interruptible section;
    ASSERT_TRUE(interruptible_enter(&section, stop));
    EXPECT_TRUE(interruptible_is_inside(section));
    interruptible_leave(&section);
    EXPECT_FALSE(interruptible_is_inside(section));
    stop_flag_raise(&stop);
    EXPECT_FALSE(interruptible_enter(&section, stop));
    EXPECT_FALSE(interruptible_is_inside(section));
}

}  // namespace
