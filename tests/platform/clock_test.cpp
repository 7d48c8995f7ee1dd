// The phone's clocks on Linux, as a process and its waits see them while /dev/clock changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "base/unique_handle.h"
#include "platform/clock.h"
#include "support/events.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
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
    fs::rename("/dev/log/clock", "/dev/clock");
}

bool yield_until(const std::function<bool()>& condition) {
    const auto deadline = steady_clock::now() + EVENT_LIMIT;
    while (!condition() && steady_clock::now() < deadline) std::this_thread::yield();
    return condition();
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
        const std::string ppoll = std::to_string(SYS_ppoll) + " ";
        (void)yield_until([&] {
            const std::string call = "/proc/self/task/" + std::to_string(tid_) + "/syscall";
            return done_ || (tid_ != 0 && file_text(call).starts_with(ppoll));
        });
    }
    ~waiting_thread() {
        while (!done_) write_in_place(boot_in_hours(48));  // a wait that failed the test still ends
        thread_.join();
    }

    bool is_done() const { return done_; }
    bool ends() const {
        return yield_until([&] { return done_.load(); });
    }
    steady_clock::duration taken() const { return taken_; }  // in real time

  private:
    std::thread thread_;
    std::atomic<pid_t> tid_{0};
    std::atomic<bool> done_{false};
    steady_clock::duration taken_{};
};

TEST(PhoneClock, WithoutASpecTheClocksAreTheMachines) {
    ASSERT_FALSE(fs::exists("/dev/clock")) << "this test comes first";
    for (const clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC, CLOCK_BOOTTIME}) {
        timespec machine = {};
        clock_gettime(clock, &machine);
        EXPECT_NEAR(static_cast<double>(clock_ms(clock)),
                    static_cast<double>(machine.tv_sec) * 1000, 2000);
    }
}

TEST(PhoneClock, ReadyDescriptorEndsAnyWait) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const unique_fd out(ends[0]), in(ends[1]);
    pollfd fds[] = {{.fd = -1, .events = POLLIN, .revents = 0},
                    {.fd = out.get(), .events = POLLIN, .revents = 0}};
    std::thread writer([&] { EXPECT_EQ(write(in.get(), "x", 1), 1); });
    EXPECT_EQ(platform_poll(fds, 2, HOUR_MS), 1);
    EXPECT_EQ(fds[1].revents, POLLIN);
    writer.join();
    EXPECT_EQ(platform_poll(fds, 2, 1), 1) << "what is ready counts for more than the time";
    EXPECT_EQ(platform_poll(fds, 2, -1), 1);
    // A wait without end takes no descriptor, in a thread that has waited for nothing else.
    std::thread([&] {
        EXPECT_EQ(platform_poll(fds, 2, -1), 1);
        const size_t before = list_dir("/proc/self/fd").size();
        EXPECT_EQ(platform_poll(fds, 2, -1), 1);
        EXPECT_EQ(list_dir("/proc/self/fd").size(), before);
    }).join();
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
    ASSERT_TRUE(wait.ends());
    EXPECT_GE(wait.taken(), milliseconds(499));
}

TEST(PhoneClock, WaitsFollowTheSpeed) {
    write_in_place("speed=100");
    waiting_thread fast(20000);
    ASSERT_TRUE(fast.ends());
    EXPECT_GE(fast.taken(), milliseconds(199));
    write_in_place("speed=1");
    waiting_thread hours(10 * HOUR_MS);
    write_in_place("speed=1000000");
    EXPECT_TRUE(hours.ends());
    write_in_place("speed=1");
}

// 100 seconds ago, at ten times the speed: 1000 seconds on. Two minutes of leeway for this machine.
TEST(PhoneClock, SpecHoldsFromItsTimeStampOn) {
    const int64_t boot_ms = clock_ms(CLOCK_BOOTTIME) / 1000 * 1000 + 1000000000;
    const std::string boot = " boot=" + std::to_string(boot_ms / 1000) + " speed=10";
    write_text_file("/dev/other", "real=2016-12-31T23:59:50Z" + boot);
    fs::last_write_time("/dev/other", fs::file_time_type::clock::now() - std::chrono::seconds(100));
    fs::rename("/dev/other", "/dev/clock");
    ASSERT_EQ(platform_poll(nullptr, 0, 2), 0);  // a file where there was none is seen within 1 ms
    const int64_t since_ms[] = {clock_ms(CLOCK_BOOTTIME) - boot_ms,
                                clock_ms(CLOCK_MONOTONIC) - boot_ms,
                                clock_ms(CLOCK_REALTIME) - 1483228790000};
    for (const int64_t ms : since_ms) {
        EXPECT_GE(ms, 999900);
        EXPECT_LE(ms, 1120000);
    }
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
            int64_t seen_ms = latest_ms.load();
            const int64_t now_ms = clock_ms(CLOCK_BOOTTIME);
            EXPECT_GE(now_ms, seen_ms);
            latest_ms.compare_exchange_strong(seen_ms, now_ms);
        }
    };
    std::thread one(watch), other(watch);
    for (int i = 0; i < 200; ++i) {
        write_in_place(i % 2 == 0 ? "speed=1000" : "boot=1 speed=0.001");
        std::this_thread::yield();
    }
    stop = true;
    one.join();
    other.join();
    write_in_place("speed=1");
}

}  // namespace
