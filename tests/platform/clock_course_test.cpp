// The arithmetic of a phone's clocks: what a SPEC says and what it makes of the course before it.
#include "host/clock_course.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "support/dialogue.h"

namespace {

constexpr int64_t HOST_NS = 100;

std::string shown(const clock_course& course) {
    std::ostringstream out;
    out << "boot " << course_boot_ns(course, HOST_NS) << ", real "
        << course_real_ns(course, HOST_NS) << ", speed " << course.speed << "\n";
    return out.str();
}

std::string parsed_and_applied(const std::string& text) {
    const clock_course before = {.host_ns = 0, .boot_ns = 1000, .real_ns = 5000, .speed = 10};
    const auto spec = clock_spec_parse(text.data(), text.size());
    if (!spec) return "no SPEC\n";
    std::ostringstream said;
    if (spec->real_ns) said << " real " << *spec->real_ns;
    if (spec->boot_ns) said << " boot " << *spec->boot_ns;
    if (spec->speed) said << " speed " << *spec->speed;
    const clock_course once = course_apply(before, *spec, HOST_NS, true);
    const clock_course twice = course_apply(once, *spec, HOST_NS, true);
    EXPECT_EQ(shown(once), shown(twice)) << text;
    return said.str().substr(1) + "\nthen " + shown(once);
}

TEST(ClockSpec, SetsTheClocksItNames) {
    expect_dialogue("platform/clock_spec", parsed_and_applied);
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
