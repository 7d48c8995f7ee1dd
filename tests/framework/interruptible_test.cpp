// Stopping a thread in a library call that only a signal can end. The window between its look at
// the flag and the call is widened.
#include "framework/interruptible.h"

#include <gtest/gtest.h>
#include <signal.h>
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

std::atomic<int> g_signals{0};

bool sigint_in(int (*get)(sigset_t*)) {
    sigset_t set;
    return get(&set) == 0 && sigismember(&set, SIGINT) == 1;
}

bool sigint_is_blocked() {
    return sigint_in([](sigset_t* set) { return pthread_sigmask(SIG_BLOCK, nullptr, set); });
}

class Interruptible : public testing::Test {
  protected:
    void SetUp() override {
        setenv("VEXA_TEST_WINDOW_US", "100", 1);
        struct sigaction action = {};
        action.sa_handler = [](int) { ++g_signals; };
        sigaction(SIGINT, &action, nullptr);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        ASSERT_EQ(pipe(ends), 0);
    }
    void TearDown() override {
        close(ends[0]);
        close(ends[1]);
    }

    // What a library does: blocks until there is something to read or a handler ran.
    void call_library() const {
        char byte = 0;
        (void)!read(ends[0], &byte, 1);
    }

    int ends[2] = {-1, -1};
};

TEST_F(Interruptible, StopIsNeverLostBetweenTheFlagAndTheCall) {
    std::mt19937 rnd(20170101);
    steady::duration longest{};
    for (int i = 0; i < STOPS; ++i) {
        stop_flag stop;
        interruptible section;
        std::atomic<bool> ended{false};
        std::thread thread([&] {
            while (interruptible_enter(&section, stop)) call_library();
            EXPECT_TRUE(sigint_is_blocked());
            EXPECT_FALSE(sigint_in(sigpending)) << "a signal was left over";
            ended = true;
        });
        while (!section.inside) std::this_thread::yield();
        const auto when = steady::now() + std::chrono::microseconds(rnd() % 200);
        while (steady::now() < when) {
        }
        const auto begin = steady::now();
        stop_flag_raise(&stop);
        while (interruptible_nudge(&section)) {
            usleep(200);
            ASSERT_LT(steady::now() - begin, EVENT_LIMIT) << "stop " << i << " was lost";
        }
        thread.join();
        EXPECT_TRUE(ended);
        longest = std::max(longest, steady::now() - begin);
        const int before = g_signals;
        EXPECT_FALSE(interruptible_nudge(&section)) << "signalled after its end";
        EXPECT_EQ(g_signals, before);
    }
    printf("%d stops, the longest %.2f ms, %d signals\n", STOPS,
           std::chrono::duration<double, std::milli>(longest).count(), g_signals.load());
}

TEST_F(Interruptible, SignalIsLetInForTheCallsOnly) {
    stop_flag stop;
    interruptible section;
    EXPECT_FALSE(interruptible_nudge(&section));
    ASSERT_TRUE(interruptible_enter(&section, stop));
    EXPECT_FALSE(sigint_is_blocked());
    ASSERT_TRUE(interruptible_enter(&section, stop)) << "a second call is no second entry";
    errno = EBADF;
    interruptible_leave(&section);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(sigint_is_blocked());
    interruptible_leave(&section);
    stop_flag_raise(&stop);
    EXPECT_FALSE(interruptible_enter(&section, stop));
    EXPECT_TRUE(sigint_is_blocked());
    EXPECT_FALSE(interruptible_nudge(&section));
}

}  // namespace
