#include "host/clock_course.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace {

constexpr int64_t MAX_NS = std::numeric_limits<int64_t>::max();
constexpr double MAX_SPEED = 1e9;
constexpr int64_t MAX_BOOT_S = 1000000000;  // 31 years

int64_t saturating_add(int64_t a, int64_t b) {
    int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b > 0 ? MAX_NS : -MAX_NS;
}

int64_t saturating_ns(double ns) {
    // The largest double below 2^63, so that the conversion is defined.
    constexpr double LIMIT = 9223372036854774784.0;
    return static_cast<int64_t>(std::clamp(ns, -LIMIT, LIMIT));
}

// Nanoseconds of the phone between the course's beginning and host_ns.
int64_t course_elapsed_ns(const clock_course& course, int64_t host_ns) {
    return saturating_ns(static_cast<double>(host_ns - course.host_ns) * course.speed);
}

// A cursor over the text of a SPEC; the C library's scanners are not async-signal-safe.
struct cursor {
    const char* at;
    const char* end;

    bool take(char c) {
        if (at == end || *at != c) return false;
        ++at;
        return true;
    }
    bool take(const char* word) {
        const char* p = at;
        for (; *word; ++word, ++p) {
            if (p == end || *p != *word) return false;
        }
        at = p;
        return true;
    }
    bool skip_space() {
        const char* begin = at;
        while (at != end && (*at == ' ' || *at == '\t' || *at == '\n' || *at == '\r')) ++at;
        return at != begin;
    }
};

bool parse_digits(cursor* in, int min_digits, int max_digits, int64_t* value) {
    *value = 0;
    int digits = 0;
    for (; digits < max_digits && in->at != in->end && *in->at >= '0' && *in->at <= '9'; ++digits) {
        *value = *value * 10 + (*in->at++ - '0');
    }
    return digits >= min_digits;
}

// An optional fraction ".25" as nanoseconds; digits beyond the ninth count for nothing.
bool parse_fraction(cursor* in, int64_t* ns) {
    *ns = 0;
    if (!in->take('.')) return true;
    int64_t unit = NS_PER_S / 10;
    const char* begin = in->at;
    for (; in->at != in->end && *in->at >= '0' && *in->at <= '9'; ++in->at, unit /= 10) {
        *ns += (*in->at - '0') * unit;
    }
    return in->at != begin;
}

// A decimal number of seconds as nanoseconds.
bool parse_seconds(cursor* in, int64_t max_s, int64_t* ns) {
    int64_t whole = 0;
    int64_t fraction = 0;
    if (!parse_digits(in, 1, 10, &whole) || whole > max_s || !parse_fraction(in, &fraction))
        return false;
    *ns = whole * NS_PER_S + fraction;
    return true;
}

bool parse_utc(cursor* in, int64_t* ns) {
    int64_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, fraction = 0;
    const bool shaped =
        parse_digits(in, 4, 4, &year) && in->take('-') && parse_digits(in, 2, 2, &month) &&
        in->take('-') && parse_digits(in, 2, 2, &day) && in->take('T') &&
        parse_digits(in, 2, 2, &hour) && in->take(':') && parse_digits(in, 2, 2, &minute) &&
        in->take(':') && parse_digits(in, 2, 2, &second) && parse_fraction(in, &fraction) &&
        in->take('Z');
    const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(year)),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    // The range of years is what nanoseconds in 64 bits can hold.
    if (!shaped || !date.ok() || year < 1700 || year > 2250) return false;
    if (hour > 23 || minute > 59 || second > 59) return false;
    const int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
    *ns = (days * 86400 + hour * 3600 + minute * 60 + second) * NS_PER_S + fraction;
    return true;
}

bool parse_word(cursor* in, clock_spec* spec) {
    int64_t ns = 0;
    if (!spec->real_ns && in->take("real=")) {
        if (!parse_utc(in, &ns)) return false;
        spec->real_ns = ns;
        return true;
    }
    if (!spec->boot_ns && in->take("boot=")) {
        if (!parse_seconds(in, MAX_BOOT_S, &ns)) return false;
        spec->boot_ns = ns;
        return true;
    }
    if (!spec->speed && in->take("speed=")) {
        // A clock that stands still would let no wait end: not a speed.
        if (!parse_seconds(in, static_cast<int64_t>(MAX_SPEED), &ns) || ns == 0) return false;
        spec->speed = static_cast<double>(ns) / NS_PER_S;
        return true;
    }
    return false;
}

// The moment at which the clocks will have moved on by ahead_ns.
int64_t host_ns_when_ahead(const clock_course& course, int64_t ahead_ns) {
    return saturating_add(course.host_ns,
                          saturating_ns(std::ceil(static_cast<double>(ahead_ns) / course.speed)));
}

}  // namespace

std::optional<clock_spec> clock_spec_parse(const char* text, size_t len) {
    cursor in{.at = text, .end = text + len};
    clock_spec spec;
    in.skip_space();
    if (in.at == in.end) return {};
    do {
        if (!parse_word(&in, &spec)) return {};
    } while (in.skip_space() && in.at != in.end);
    if (in.at != in.end) return {};
    return spec;
}

int64_t course_boot_ns(const clock_course& course, int64_t host_ns) {
    return saturating_add(course.boot_ns, course_elapsed_ns(course, host_ns));
}

int64_t course_real_ns(const clock_course& course, int64_t host_ns) {
    return saturating_add(course.real_ns, course_elapsed_ns(course, host_ns));
}

int64_t course_host_ns(const clock_course& course, int64_t boot_ns) {
    return host_ns_when_ahead(course, saturating_add(boot_ns, -course.boot_ns));
}

int64_t course_host_ns_of_real(const clock_course& course, int64_t real_ns) {
    return host_ns_when_ahead(course, saturating_add(real_ns, -course.real_ns));
}

clock_course course_apply(const clock_course& before, const clock_spec& spec, int64_t host_ns,
                          bool keep_boot) {
    clock_course after{
        .host_ns = host_ns,
        .boot_ns = course_boot_ns(before, host_ns),
        .real_ns = spec.real_ns.value_or(course_real_ns(before, host_ns)),
        .speed = spec.speed.value_or(before.speed),
    };
    if (spec.boot_ns)
        after.boot_ns = keep_boot ? std::max(after.boot_ns, *spec.boot_ns) : *spec.boot_ns;
    return after;
}
