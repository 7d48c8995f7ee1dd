#include "gpu_record.h"

#include <fmt/format.h>

#include <algorithm>

#include "byte_cursor.h"
#include "sample_times.h"
#include "text.h"

namespace {

using text_row = std::vector<std::string>;
using timed_samples = std::vector<timed_sample<gpu_record_sample>>;

constexpr uint32_t TIMEZONE_CHANGED = 1u << 31;
constexpr size_t LEVEL_BYTES = 4 + 8;
constexpr size_t TIMEZONE_BYTES = 2;
constexpr size_t FIXED_BYTES = 4 + 4 + 4 + 4 + 4;

// How far to look for the second sample of a damaged record: the kernel's lists of levels fit a
// page of 4096 bytes.
constexpr size_t FIRST_SAMPLE_MAX_BYTES = FIXED_BYTES + TIMEZONE_BYTES + 2048 * LEVEL_BYTES;

gpu_record_sample decode_sample(byte_cursor& cursor) {
    gpu_record_sample sample;
    const auto stamp = cursor.take<uint32_t>("uptime_100ms");
    sample.uptime_100ms = stamp & ~TIMEZONE_CHANGED;
    if (stamp & TIMEZONE_CHANGED) sample.timezone_min = cursor.take<int16_t>("timezone_min");
    sample.busy_percent = cursor.take<uint32_t>("busy_percent");
    sample.clock_hz = cursor.take<uint32_t>("clock_hz");
    const auto count = cursor.take<uint32_t>("level_count");
    cursor.check_count(count, LEVEL_BYTES, sizeof(count), "level_count");
    sample.levels.resize(count);
    for (auto& level : sample.levels) {
        level.freq_hz = cursor.take<uint32_t>("freq_hz");
        level.time = cursor.take<uint64_t>("time");
    }
    sample.charge_counter_uah = cursor.take<int32_t>("charge_counter_uah");
    return sample;
}

std::vector<gpu_record_sample> decode_samples(std::span<const uint8_t> bytes) {
    std::vector<gpu_record_sample> samples;
    byte_cursor cursor(bytes);
    while (cursor.left() > 0) samples.push_back(decode_sample(cursor));
    return samples;
}

bool try_decode(std::span<const uint8_t> bytes, std::vector<gpu_record_sample>* samples) try {
    *samples = decode_samples(bytes);
    return true;
} catch (const upload_error&) {
    return false;
}

bool is_left_over_line(std::span<const uint8_t> bytes) {
    return bytes.size() <= LEFT_OVER_MAX_BYTES && bytes.back() == '\n';
}

// Whether so many bytes are a sample of so many levels that lacks its first few.
bool is_rest_of_sample(size_t size, size_t levels) {
    const size_t whole = FIXED_BYTES + levels * LEVEL_BYTES;
    return size < whole + TIMEZONE_BYTES && size + OVERWRITTEN_MAX_BYTES >= whole;
}

bool is_plausible(const std::vector<gpu_record_sample>& samples) {
    for (size_t i = 1; i < samples.size(); i++)
        if (samples[i].uptime_100ms < samples[i - 1].uptime_100ms ||
            samples[i].levels.size() != samples[0].levels.size())
            return false;
    return true;
}

// Passes over one sample without keeping it. Returns false when none is here.
bool skim_sample(byte_cursor& cursor, uint32_t* uptime_100ms, size_t* levels) {
    constexpr size_t LEFT_BEHIND_COUNT = 4;
    if (cursor.left() < FIXED_BYTES) return false;
    const auto stamp = cursor.take<uint32_t>("uptime_100ms");
    *uptime_100ms = stamp & ~TIMEZONE_CHANGED;
    const bool has_timezone = (stamp & TIMEZONE_CHANGED) != 0;
    if (has_timezone && cursor.left() + 4 < FIXED_BYTES + TIMEZONE_BYTES) return false;
    cursor.take_bytes(8 + (has_timezone ? TIMEZONE_BYTES : 0), "what stands in front of the count");
    *levels = cursor.take<uint32_t>("level_count");
    if (cursor.left() < LEFT_BEHIND_COUNT ||
        *levels > (cursor.left() - LEFT_BEHIND_COUNT) / LEVEL_BYTES)
        return false;
    cursor.take_bytes(*levels * LEVEL_BYTES + LEFT_BEHIND_COUNT, "the levels");
    return true;
}

// Whether the first whole sample of a damaged payload begins at `at`: what it says of the levels
// tells how much of the damaged one must stand in front of it, and from there on everything fits to
// the last byte.
bool begins_whole_samples(std::span<const uint8_t> payload, size_t at) {
    byte_cursor cursor(payload.subspan(at));
    uint32_t uptime_100ms = 0;
    size_t levels = 0;
    // Any zero bytes look like a sample without levels.
    if (!skim_sample(cursor, &uptime_100ms, &levels) || levels == 0) return false;
    if (!is_left_over_line(payload.first(at)) && !is_rest_of_sample(at, levels)) return false;
    while (cursor.left() > 0) {
        const uint32_t before = uptime_100ms;
        size_t more_levels = 0;
        if (!skim_sample(cursor, &uptime_100ms, &more_levels) || more_levels != levels ||
            uptime_100ms < before)
            return false;
    }
    return true;
}

bool skip_damage(std::span<const uint8_t> payload, gpu_record* record) {
    for (size_t at = 1; at < std::min(payload.size(), FIRST_SAMPLE_MAX_BYTES); at++) {
        if (!begins_whole_samples(payload, at)) continue;
        record->skipped_bytes = at;
        record->samples = decode_samples(payload.subspan(at));
        return true;
    }
    return false;
}

std::string load_table(const timed_samples& samples) {
    std::vector<text_row> rows;
    for (const auto& [sample, time] : samples)
        rows.push_back({time, fmt::format("{}", sample->busy_percent),
                        fmt::format("{:.0f}", sample->clock_hz / 1e6),
                        fmt::format("{:.1f}", sample->charge_counter_uah / 1000.0)});
    return "  Load and clock of the GPU, charge of the battery\n" +
           text_table({{"time", text_align::left}, {"busy %"}, {"clock MHz"}, {"charge mAh"}},
                      rows);
}

// The time at each level between the first and the last sample. Levels are told apart by their
// place in the list.
std::string residency_table(const gpu_record_sample& first, const gpu_record_sample& last) {
    if (last.levels.empty()) return "  No power levels\n";
    const auto grown = [&](size_t i) {
        const bool known = i < first.levels.size() && last.levels[i].time >= first.levels[i].time;
        return known ? last.levels[i].time - first.levels[i].time : 0;
    };
    double total = 0;
    for (size_t i = 0; i < last.levels.size(); i++) total += static_cast<double>(grown(i));
    std::vector<text_row> rows;
    for (size_t i = 0; i < last.levels.size(); i++) {
        const double share = total > 0 ? 100 * static_cast<double>(grown(i)) / total : 0;
        rows.push_back({fmt::format("{:.0f}", last.levels[i].freq_hz / 1e6),
                        fmt::format("{}", last.levels[i].time), fmt::format("+{}", grown(i)),
                        total > 0 ? fmt::format("{:.1f}", share) : "-"});
    }
    return "  Time at each frequency, in the driver's unit: total at the end, growth over the "
           "record\n" +
           text_table({{"MHz"}, {"time"}, {"growth"}, {"share %"}}, rows);
}

void put_sample(const gpu_record_sample& sample, json_stream* out) {
    out->begin_object();
    out->member("uptime_100ms", sample.uptime_100ms);
    if (sample.timezone_min) out->member("timezone_min", *sample.timezone_min);
    out->member("busy_percent", sample.busy_percent);
    out->member("clock_hz", sample.clock_hz);
    out->member("level_count", sample.levels.size());
    out->begin_array("levels");
    for (const auto& level : sample.levels)
        out->value({{"freq_hz", level.freq_hz}, {"time", level.time}});
    out->end_array();
    out->member("charge_counter_uah", sample.charge_counter_uah);
    out->end_object();
}

}  // namespace

gpu_record gpu_record_decode(std::span<const uint8_t> payload) {
    gpu_record record;
    // A damaged record may happen to fit. Its times and level counts then hardly do.
    const bool fits = try_decode(payload, &record.samples);
    if (fits && (record.samples.empty() || is_plausible(record.samples))) return record;
    if (!skip_damage(payload, &record) && !fits) record.samples = decode_samples(payload);
    return record;
}

void gpu_record_add_json(const upload_file& file, json_stream* out) {
    const auto record = gpu_record_decode(file.payload);
    if (record.skipped_bytes > 0) out->member("skipped_bytes", record.skipped_bytes);
    out->begin_array("records");
    for (const auto& sample : record.samples) put_sample(sample, out);
    out->end_array();
}

std::string gpu_record_report(const upload_file& file, const report_options& options) {
    const auto record = gpu_record_decode(file.payload);
    const auto note = skipped_note(record.skipped_bytes);
    if (record.samples.empty()) return note + "  No samples\n";
    const auto all = add_times(file.header, record.samples);
    const auto shown = thin_out(all, options.max_rows);
    return note + samples_line(all.size(), shown.size()) + load_table(shown) + "\n" +
           residency_table(record.samples.front(), record.samples.back());
}
