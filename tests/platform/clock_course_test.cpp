// The arithmetic of a phone's clocks: what a SPEC says and what it makes of the course before it.
#include <gtest/gtest.h>

#include <limits>
#include <string_view>

#include "host/clock_course.h"

namespace {

constexpr int64_t NEW_YEARS_EVE_NS = 1483228790 * NS_PER_S;  // 2016-12-31T23:59:50Z

std::optional<clock_spec> parse(std::string_view text) {
    return clock_spec_parse(text.data(), text.size());
}

TEST(ClockSpec, WordsInAnyOrderWithFractions) {
    const struct {
        const char* text;
        std::optional<int64_t> real_ns;
        std::optional<int64_t> boot_ns;
        std::optional<double> speed;
    } rows[] = {
        {"real=2016-12-31T23:59:50Z boot=30 speed=60", NEW_YEARS_EVE_NS, 30 * NS_PER_S, 60},
        {" speed=0.5\n", {}, {}, 0.5},
        {"boot=0.25\tspeed=1000000", {}, NS_PER_S / 4, 1e6},
        {"boot=0", {}, 0, {}},
        {"real=1970-01-01T00:00:00Z", 0, {}, {}},
        {"real=2024-02-29T12:00:00.123456789Z", 1709208000123456789, {}, {}},
        {"real=1969-12-31T23:59:59Z", -NS_PER_S, {}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const std::optional<clock_spec> spec = parse(row.text);
        ASSERT_TRUE(spec);
        EXPECT_EQ(spec->real_ns, row.real_ns);
        EXPECT_EQ(spec->boot_ns, row.boot_ns);
        EXPECT_EQ(spec->speed, row.speed);
    }
}

TEST(ClockSpec, HalfWrittenOrWrongTextIsNoSpec) {
    for (const char* text : {"",
                             " \n",
                             "boot",
                             "boot=",
                             "boot=-1",
                             "boot=1e3",
                             "boot=1.",
                             "boot=30s",
                             "boot=30speed=2",
                             "boot=1 boot=2",
                             "speed=0",
                             "speed=0.0000000000",
                             "speed=nan",
                             "speed=99999999999",
                             "boot=99999999999999999999",
                             "real=2016-12-31",
                             "real=2016-12-31T23:59:50",
                             "real=2016-13-01T00:00:00Z",
                             "real=2023-02-29T00:00:00Z",
                             "real=2016-12-31T24:00:00Z",
                             "real=9999-01-01T00:00:00Z",
                             "real=2016-12-31 23:59:50Z",
                             "warp=9",
                             "boot=1 x"}) {
        EXPECT_FALSE(parse(text)) << text;
    }
}

TEST(ClockCourse, AbsentWordLeavesItsClockOnItsCourse) {
    const clock_course before = {.host_ns = 0, .boot_ns = 1000, .real_ns = 5000, .speed = 10};
    const int64_t host_ns = 100;  // there the clocks read 2000 and 6000
    const struct {
        const char* name;
        clock_spec spec;
        int64_t boot_ns, real_ns;
        double speed;
    } rows[] = {
        {"real", {.real_ns = 77, .boot_ns = {}, .speed = {}}, 2000, 77, 10},
        {"boot", {.real_ns = {}, .boot_ns = 9000, .speed = {}}, 9000, 6000, 10},
        {"speed", {.real_ns = {}, .boot_ns = {}, .speed = 3}, 2000, 6000, 3},
        {"boot set back", {.real_ns = {}, .boot_ns = 5, .speed = {}}, 2000, 6000, 10},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const clock_course once = course_apply(before, row.spec, host_ns, true);
        const clock_course twice = course_apply(once, row.spec, host_ns, true);
        for (const clock_course& after : {once, twice}) {
            EXPECT_EQ(course_boot_ns(after, host_ns), row.boot_ns);
            EXPECT_EQ(course_real_ns(after, host_ns), row.real_ns);
            EXPECT_EQ(after.speed, row.speed);
        }
    }
}

TEST(ClockCourse, DeadlineIsNeverEarlyAndNothingOverflows) {
    constexpr int64_t FAR = std::numeric_limits<int64_t>::max();
    for (const double speed : {0.000000001, 0.3, 1.0, 60.0, 1e9}) {
        const clock_course course = {
            .host_ns = 50 * NS_PER_S, .boot_ns = 30 * NS_PER_S, .real_ns = 0, .speed = speed};
        const int64_t deadline_ns = 31 * NS_PER_S + 7;
        const int64_t host_ns = course_host_ns(course, deadline_ns);
        EXPECT_NEAR(static_cast<double>(course_boot_ns(course, host_ns) - deadline_ns), 0,
                    2 + speed)
            << speed;
        EXPECT_GE(course_boot_ns(course, FAR), course_boot_ns(course, host_ns)) << speed;
        EXPECT_GT(course_host_ns(course, FAR), host_ns) << speed;
        EXPECT_GE(course_real_ns(course, FAR), 0) << speed;
    }
}

}  // namespace
