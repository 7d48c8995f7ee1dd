// The phone's clocks on Linux, as a process and its waits see them while /dev/clock changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/clock.h"
#include "support/events.h"
#include "support/files.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int64_t HOUR_MS = 3600 * 1000;

int64_t clock_ms(clockid_t clock) {
    timespec now = {};
    EXPECT_EQ(platform_clock_gettime(clock, &now), 0);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void write_in_place(const std::string& spec) {
    write_text_file("/dev/clock", spec);
}

// Made elsewhere, so that the rename is all that happens in /dev.
void replace(const std::string& spec) {
    write_text_file("/dev/log/clock", spec);
    ASSERT_EQ(rename("/dev/log/clock", "/dev/clock"), 0);
}

// A boot-time clock that stands hours ahead of where it is now.
std::string boot_in_hours(int hours) {
    return "boot=" + std::to_string((clock_ms(CLOCK_BOOTTIME) + hours * HOUR_MS) / 1000) +
           " speed=1";
}

// A thread in platform_poll, known to be blocked in the kernel.
class waiting_thread {
  public:
    explicit waiting_thread(int64_t timeout_ms) {
        thread_ = std::thread([this, timeout_ms] {
            tid_ = gettid();
            const auto begin = steady_clock::now();
            timespec cpu = {};
            EXPECT_EQ(platform_poll(nullptr, 0, timeout_ms), 0);
            taken_ = steady_clock::now() - begin;
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
            EXPECT_LT(cpu.tv_sec * 1000 + cpu.tv_nsec / 1000000, 100) << "a wait burns no time";
            done_ = true;
        });
        const auto deadline = steady_clock::now() + EVENT_LIMIT;
        while (!done_ && !is_in_ppoll() && steady_clock::now() < deadline)
            std::this_thread::yield();
    }
    ~waiting_thread() {
        while (!done_) write_in_place(boot_in_hours(48));  // a wait that failed the test still ends
        thread_.join();
    }

    bool is_done() const { return done_; }

    // Whether the wait ends of itself, and the real time that it took.
    std::optional<steady_clock::duration> ends(milliseconds limit = EVENT_LIMIT) {
        const auto deadline = steady_clock::now() + limit;
        while (!done_ && steady_clock::now() < deadline) std::this_thread::yield();
        if (!done_) return {};
        return taken_;
    }

  private:
    bool is_in_ppoll() const {
        const std::string path = "/proc/self/task/" + std::to_string(tid_) + "/syscall";
        return tid_ != 0 &&
               read_file(path).value_or("").starts_with(std::to_string(SYS_ppoll) + " ");
    }

    std::thread thread_;
    std::atomic<pid_t> tid_{0};
    std::atomic<bool> done_{false};
    steady_clock::duration taken_{};
};

TEST(PhoneClock, WithoutASpecTheClocksAreTheMachines) {
    ASSERT_FALSE(std::filesystem::exists("/dev/clock")) << "this test comes first";
    for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC, CLOCK_BOOTTIME}) {
        timespec machine = {};
        clock_gettime(clock, &machine);
        EXPECT_NEAR(static_cast<double>(clock_ms(clock)),
                    static_cast<double>(machine.tv_sec) * 1000, 2000);
    }
}

TEST(PhoneClock, WaitWithoutEndTakesNoDescriptor) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::thread thread([&] {
        pollfd readable{.fd = ends[0], .events = POLLIN, .revents = 0};
        EXPECT_EQ(platform_poll(&readable, 1, -1), 1);
        const size_t before = list_dir("/proc/self/fd").size();
        EXPECT_EQ(platform_poll(&readable, 1, -1), 1);
        EXPECT_EQ(list_dir("/proc/self/fd").size(), before);
    });
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    thread.join();
    close(ends[0]);
    close(ends[1]);
}

// Files that appear where none was, are rewritten and are replaced must all be noticed.
TEST(PhoneClock, JumpOfBootEndsTheWaitsWhoseTimeHasThenCome) {
    for (const bool is_there : {false, true}) {
        for (const auto write : {write_in_place, replace}) {
            if (!is_there) unlink("/dev/clock");
            waiting_thread due(HOUR_MS);
            waiting_thread later(5 * HOUR_MS);
            write(boot_in_hours(2));
            EXPECT_TRUE(due.ends());
            EXPECT_FALSE(later.is_done());
            write(boot_in_hours(4));
            EXPECT_TRUE(later.ends());
        }
    }
}

TEST(PhoneClock, JumpOfRealMovesNoRelativeWait) {
    write_in_place("speed=1");
    waiting_thread wait(500);
    write_in_place("real=2035-01-01T00:00:00Z");
    EXPECT_GE(clock_ms(CLOCK_REALTIME), 2051222400000);
    const auto taken = wait.ends();
    ASSERT_TRUE(taken);
    EXPECT_GE(*taken, milliseconds(499));
}

TEST(PhoneClock, WaitsFollowTheSpeed) {
    write_in_place("speed=100");
    waiting_thread fast(20000);
    const auto taken = fast.ends();
    ASSERT_TRUE(taken);
    EXPECT_GE(*taken, milliseconds(199));
    EXPECT_LT(*taken, milliseconds(19000));
    write_in_place("speed=1");
    waiting_thread hours(10 * HOUR_MS);
    write_in_place("speed=1000000");
    EXPECT_TRUE(hours.ends());
    write_in_place("speed=1");
}

TEST(PhoneClock, SpecHoldsFromItsTimeStampOn) {
    const int64_t boot_s = clock_ms(CLOCK_BOOTTIME) / 1000 + 1000000;
    write_text_file("/dev/other",
                    "real=2016-12-31T23:59:50Z boot=" + std::to_string(boot_s) + " speed=10");
    timespec written = {};
    clock_gettime(CLOCK_REALTIME, &written);
    written.tv_sec -= 100;
    const timespec times[2] = {written, written};
    ASSERT_EQ(utimensat(AT_FDCWD, "/dev/other", times, 0), 0);
    ASSERT_EQ(rename("/dev/other", "/dev/clock"), 0);
    ASSERT_EQ(platform_poll(nullptr, 0, 2), 0);  // a file where there was none is seen within 1 ms
    // 100 seconds ago, at ten times the speed: 1000 seconds on. Two minutes of leeway for this
    // machine.
    const double since_boot_s =
        static_cast<double>(clock_ms(CLOCK_BOOTTIME)) / 1000 - static_cast<double>(boot_s);
    EXPECT_GE(since_boot_s, 999.9);
    EXPECT_LE(since_boot_s, 1120);
    EXPECT_EQ(clock_ms(CLOCK_BOOTTIME) / 1000, clock_ms(CLOCK_MONOTONIC) / 1000);
    EXPECT_NEAR(static_cast<double>(clock_ms(CLOCK_REALTIME)) / 1000, 1483228790 + 1000, 120);
}

TEST(PhoneClock, HalfWrittenFileChangesNothing) {
    write_in_place("boot=50000000 speed=1");
    const int64_t before_ms = clock_ms(CLOCK_BOOTTIME);
    for (const char* text : {"", "boot=", "boot=60000000 spe"}) {
        write_in_place(text);
        EXPECT_LT(clock_ms(CLOCK_BOOTTIME) - before_ms, 60000) << text;
    }
    ASSERT_EQ(unlink("/dev/clock"), 0);
    EXPECT_LT(clock_ms(CLOCK_BOOTTIME) - before_ms, 60000)
        << "a file that is gone leaves the clock on its course";
    EXPECT_GE(clock_ms(CLOCK_BOOTTIME), before_ms);
}

TEST(PhoneClock, BootNeverRunsBackwardsForAnyThread) {
    std::atomic<bool> stop{false};
    std::atomic<int64_t> latest_ms{0};
    const auto watch = [&] {
        while (!stop) {
            const int64_t seen_ms = latest_ms.load();
            const int64_t now_ms = clock_ms(CLOCK_BOOTTIME);
            EXPECT_GE(now_ms, seen_ms);
            int64_t expected = seen_ms;
            latest_ms.compare_exchange_strong(expected, now_ms);
        }
    };
    std::thread threads[] = {std::thread(watch), std::thread(watch)};
    for (int i = 0; i < 200; ++i) {
        write_in_place(i % 2 == 0 ? "speed=1000" : "boot=1 speed=0.001");
        std::this_thread::yield();
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    write_in_place("speed=1");
}

TEST(PhoneClock, ReadyDescriptorEndsATimedWait) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    pollfd fds[] = {{.fd = -1, .events = POLLIN, .revents = 0},
                    {.fd = ends[0], .events = POLLIN, .revents = 0}};
    std::thread writer([&] { EXPECT_EQ(write(ends[1], "x", 1), 1); });
    EXPECT_EQ(platform_poll(fds, 2, HOUR_MS), 1);
    EXPECT_EQ(fds[1].revents, POLLIN);
    writer.join();
    EXPECT_EQ(platform_poll(fds, 2, 1), 1)
        << "a descriptor that is ready counts for more than the time";
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
