// The phone's own clock, with its functions under other names: the test has a platform already.
#define platform_clock_gettime phone_clock_gettime
#define platform_poll phone_poll
#define platform_poll_until phone_poll_until
#include "android/clock.cpp"
#undef platform_clock_gettime
#undef platform_poll
#undef platform_poll_until

#include <fcntl.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(AndroidClock, WaitForATimeOfTheWallClockNeedsNoDescriptor) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const unique_fd from(ends[0]);
    const unique_fd to(ends[1]);
    for (const bool out_of_descriptors : {false, true}) {
        SCOPED_TRACE(out_of_descriptors);
        std::vector<unique_fd> taken;
        do taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        while (out_of_descriptors && taken.back());
        pollfd fd{.fd = from.get(), .events = POLLIN, .revents = 0};
        const int64_t end_ms = real_now_ms() + 1200;
        EXPECT_EQ(phone_poll_until(&fd, 1, end_ms), 0);
        EXPECT_GE(real_now_ms(), end_ms);
        EXPECT_EQ(phone_poll_until(&fd, 1, 0), 0) << "a time that has passed";
        ASSERT_EQ(write(to.get(), "x", 1), 1);
        EXPECT_EQ(phone_poll_until(&fd, 1, real_now_ms() + 60000), 1);
        char byte = 0;
        ASSERT_EQ(read(from.get(), &byte, 1), 1);
    }
}

}  // namespace
