// What the reports of sampled records share: the local time of each sample, and rows for a table of
// limited length. A sample is a structure with uptime_100ms and an optional timezone_min.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "text.h"
#include "upload_reader.h"

// A sample on its way into the tables, with its local time of day.
template <class Sample>
struct timed_sample {
    const Sample* sample = nullptr;
    std::string time;
};

template <class Sample>
std::vector<timed_sample<Sample>> add_times(const upload_header& header,
                                            const std::vector<Sample>& samples) {
    std::vector<timed_sample<Sample>> timed;
    int timezone_min = header.timezone_min;
    for (const auto& sample : samples) {
        timezone_min = sample.timezone_min.value_or(static_cast<int16_t>(timezone_min));
        const uint64_t realtime_ms =
            header.realtime_ms + uint64_t{sample.uptime_100ms} * 100 - header.uptime_ms;
        timed.push_back(
            {&sample, text_time_of_day(static_cast<int64_t>(realtime_ms), timezone_min)});
    }
    return timed;
}

// At most `max` of them, evenly spread, the first and the last among them.
template <class Sample>
std::vector<timed_sample<Sample>> thin_out(const std::vector<timed_sample<Sample>>& samples,
                                           size_t max) {
    if (samples.size() <= max) return samples;
    std::vector<timed_sample<Sample>> kept;
    for (size_t i = 0; i < max; i++)
        kept.push_back(samples[i * (samples.size() - 1) / std::max<size_t>(max - 1, 1)]);
    return kept;
}

// A record that was begun before the wall clock was set got a new first line once it was. A longer
// one overwrote the first bytes of the data, a shorter one left the end of the old line in front of
// it. Numbers of digits bound both: 12 more of the time, 3 of the time-zone offset.
inline constexpr size_t OVERWRITTEN_MAX_BYTES = 15;
inline constexpr size_t LEFT_OVER_MAX_BYTES = 4;

// The line of a report that says how many bytes such a record lost; empty when none.
std::string skipped_note(size_t skipped_bytes);

// The line that says how many samples there are and how many of them are shown.
std::string samples_line(size_t all, size_t shown);
