// The course of the simulated phone's clocks: what the file /dev/clock says of them, as arithmetic.
// Nothing here reads a clock or a file, allocates or locks; all of it is async-signal-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

inline constexpr int64_t NS_PER_MS = 1000000;
inline constexpr int64_t NS_PER_S = 1000000000;

// A parsed SPEC; a word that is absent leaves its clock on its present course.
struct clock_spec {
    std::optional<int64_t> real_ns;  // wall clock, since 1970
    std::optional<int64_t> boot_ns;  // since boot
    std::optional<double> speed;     // seconds that pass in one
};

// From the moment host_ns on (this machine's CLOCK_BOOTTIME) the phone's clocks read boot_ns and
// real_ns, and run `speed` times as fast as the machine's.
struct clock_course {
    int64_t host_ns = 0;
    int64_t boot_ns = 0;
    int64_t real_ns = 0;
    double speed = 1;
};

// Parses the words "real=2016-12-31T23:59:50Z", "boot=30" and "speed=60", in any order and each at
// most once; numbers may have a fraction. Nothing at all, or anything else in it, gives no value.
std::optional<clock_spec> clock_spec_parse(const char* text, size_t len);

// The phone's clocks at moment host_ns. Saturates instead of overflowing.
int64_t course_boot_ns(const clock_course& course, int64_t host_ns);
int64_t course_real_ns(const clock_course& course, int64_t host_ns);

// The moment at which the phone's boot-time clock will have reached boot_ns.
int64_t course_host_ns(const clock_course& course, int64_t boot_ns);

// The same for the wall clock and real_ns.
int64_t course_host_ns_of_real(const clock_course& course, int64_t real_ns);

// The course that `spec` makes out of `before` at moment host_ns. Applied again to its own result,
// a spec changes nothing. With `keep_boot` the boot-time clock is not set back: it goes on from
// where it is.
clock_course course_apply(const clock_course& before, const clock_spec& spec, int64_t host_ns,
                          bool keep_boot);
