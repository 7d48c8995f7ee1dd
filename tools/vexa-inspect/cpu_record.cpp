#include "cpu_record.h"

#include <algorithm>

#include "byte_cursor.h"
#include "sample_times.h"

namespace {

constexpr uint32_t TIMEZONE_CHANGED = 1u << 31;
constexpr size_t PROCESS_NETWORK_ROWS = 4;

// What each item takes at least; a count is checked against the bytes left with these.
constexpr size_t CPU_BYTES = 7 * 4 + 4;
constexpr size_t THERMAL_ZONE_MIN_BYTES = 1 + 4;
constexpr size_t NETWORK_ENTRY_BYTES = 12;
constexpr size_t PROCESS_MIN_BYTES = 1 + 2 + 1 + PROCESS_NETWORK_ROWS * NETWORK_ENTRY_BYTES;

uint32_t decode_cpu_count(byte_cursor& cursor) {
    const auto count = cursor.take<uint32_t>("cpu_count");
    cursor.check_count(count, CPU_BYTES, sizeof(count), "cpu_count");
    if (count == 0)
        throw upload_error(upload_place::payload, cursor.offset() - sizeof(count),
                           "cpu_count is 0");
    return count;
}

void decode_power(byte_cursor& cursor, cpu_record_sample* sample) {
    sample->charge_counter_uah = cursor.take<int32_t>("charge_counter_uah");
    const auto word = cursor.take<uint16_t>("the power word");
    sample->brightness = static_cast<uint8_t>((word & 0xFC00) >> 8);
    sample->capacity_percent = word >> 3 & 0x7F;
    sample->charge_status = word & 7;
}

void decode_thermal_zones(byte_cursor& cursor, cpu_record_sample* sample) {
    const auto count = cursor.take<uint16_t>("the thermal zone count");
    cursor.check_count(count, THERMAL_ZONE_MIN_BYTES, sizeof(count), "the thermal zone count");
    sample->thermal_zones.resize(count);
    for (auto& zone : sample->thermal_zones) {
        zone.name = cursor.take_text("a thermal zone's name");
        zone.temp_mdegc = cursor.take<int32_t>("temp_mdegc");
    }
}

cpu_record_network_entry decode_network_entry(byte_cursor& cursor) {
    cpu_record_network_entry entry;
    entry.interface_class = cursor.take<uint8_t>("interface_class");
    entry.uid = cursor.take<uint16_t>("uid");
    entry.counter_set = cursor.take<uint8_t>("counter_set");
    entry.rx_bytes = cursor.take<uint32_t>("rx_bytes");
    entry.tx_bytes = cursor.take<uint32_t>("tx_bytes");
    return entry;
}

void decode_network(byte_cursor& cursor, cpu_record_sample* sample) {
    const auto count = cursor.take<uint16_t>("the network entry count");
    cursor.check_count(count, NETWORK_ENTRY_BYTES, sizeof(count), "the network entry count");
    sample->network.resize(count);
    for (auto& entry : sample->network) entry = decode_network_entry(cursor);
}

void decode_processes(byte_cursor& cursor, cpu_record_sample* sample) {
    const auto count = cursor.take<uint16_t>("the process count");
    cursor.check_count(count, PROCESS_MIN_BYTES, sizeof(count), "the process count");
    sample->processes.resize(count);
    for (auto& process : sample->processes) {
        process.name = cursor.take_text("a process's name");
        process.load_x500 = cursor.take<uint16_t>("load_x500");
        process.cpuset_class = cursor.take<uint8_t>("cpuset_class");
        for (size_t row = 0; row < PROCESS_NETWORK_ROWS; row++) {
            const auto entry = decode_network_entry(cursor);
            if (entry.interface_class != 0) process.network.push_back(entry);
        }
    }
}

cpu_record_sample decode_sample(byte_cursor& cursor) {
    cpu_record_sample sample;
    const auto stamp = cursor.take<uint32_t>("uptime_100ms");
    sample.uptime_100ms = stamp & ~TIMEZONE_CHANGED;
    if (stamp & TIMEZONE_CHANGED) sample.timezone_min = cursor.take<int16_t>("timezone_min");
    const uint32_t cpus = decode_cpu_count(cursor);
    sample.times.resize(cpus);
    for (auto& times : sample.times)
        for (auto& ticks : times.ticks) ticks = cursor.take<uint32_t>("cpu_times_ticks");
    sample.freq_khz.resize(cpus);
    for (auto& freq : sample.freq_khz) freq = cursor.take<uint32_t>("cpu_freq_khz");
    decode_power(cursor, &sample);
    decode_thermal_zones(cursor, &sample);
    decode_network(cursor, &sample);
    decode_processes(cursor, &sample);
    return sample;
}

std::vector<cpu_record_sample> decode_samples(std::span<const uint8_t> bytes) {
    std::vector<cpu_record_sample> samples;
    byte_cursor cursor(bytes);
    while (cursor.left() > 0) {
        const size_t start = cursor.offset();
        samples.push_back(decode_sample(cursor));
        // The collector counts the CPUs once, when it starts.
        if (samples.back().times.size() != samples.front().times.size())
            throw upload_error(upload_place::payload, start, "a sample with another CPU count");
    }
    return samples;
}

// How far to look for the second sample: further than the largest first one reaches.
constexpr size_t FIRST_SAMPLE_MAX_BYTES = size_t{256} << 10;

bool try_decode(std::span<const uint8_t> bytes, std::vector<cpu_record_sample>* samples) try {
    *samples = decode_samples(bytes);
    return true;
} catch (const upload_error&) {
    return false;
}

bool skip_left_over_line(std::span<const uint8_t> payload, cpu_record* record) {
    for (size_t size = 1; size <= std::min(payload.size(), LEFT_OVER_MAX_BYTES); size++) {
        if (payload[size - 1] != '\n' || !try_decode(payload.subspan(size), &record->samples))
            continue;
        record->skipped_bytes = size;
        return true;
    }
    return false;
}

// Passes over samples without keeping anything of them. Every byte it looks at is taken off
// `work_left`; once that is used up, nothing fits any more.
class sample_skimmer {
  public:
    sample_skimmer(std::span<const uint8_t> bytes, size_t* work_left)
        : rest_(bytes), work_left_(work_left) {}

    bool at_end() const { return rest_.empty(); }
    uint32_t uptime_100ms() const { return uptime_100ms_; }
    uint32_t cpus() const { return cpus_; }

    // Passes over one sample; returns false when none is here.
    bool next() { return skip_times() && skip_zones() && skip_network() && skip_processes(); }

  private:
    bool skip(size_t size) {
        if (size > rest_.size() || size > *work_left_) return false;
        *work_left_ -= size;
        rest_ = rest_.subspan(size);
        return true;
    }

    template <class T>
    bool take(T* value) {
        const auto bytes = rest_;
        if (!skip(sizeof(T))) return false;
        *value = 0;
        for (size_t i = 0; i < sizeof(T); i++) *value |= static_cast<T>(T{bytes[i]} << 8 * i);
        return true;
    }

    bool skip_text() {
        const auto reach = rest_.first(std::min(rest_.size(), *work_left_));
        const auto end = std::find(reach.begin(), reach.end(), uint8_t{0});
        const auto size = static_cast<size_t>(end - reach.begin());
        return skip(size) && skip(1);
    }

    bool skip_times() {
        uint32_t stamp = 0;
        if (!take(&stamp) || (stamp & TIMEZONE_CHANGED && !skip(2)) || !take(&cpus_)) return false;
        uptime_100ms_ = stamp & ~TIMEZONE_CHANGED;
        constexpr size_t POWER_BYTES = 4 + 2;
        return cpus_ > 0 && skip(size_t{cpus_} * CPU_BYTES) && skip(POWER_BYTES);
    }

    bool skip_zones() {
        uint16_t count = 0;
        if (!take(&count) || count > rest_.size() / THERMAL_ZONE_MIN_BYTES) return false;
        for (; count > 0; count--)
            if (!skip_text() || !skip(THERMAL_ZONE_MIN_BYTES - 1)) return false;
        return true;
    }

    bool skip_network() {
        uint16_t count = 0;
        return take(&count) && skip(size_t{count} * NETWORK_ENTRY_BYTES);
    }

    bool skip_processes() {
        uint16_t count = 0;
        if (!take(&count) || count > rest_.size() / PROCESS_MIN_BYTES) return false;
        for (; count > 0; count--)
            if (!skip_text() || !skip(PROCESS_MIN_BYTES - 1)) return false;
        return true;
    }

    std::span<const uint8_t> rest_;
    size_t* work_left_;
    uint32_t uptime_100ms_ = 0;
    uint32_t cpus_ = 0;
};

// Whether the bytes are whole samples to the last one, of one CPU count and in order of time.
// Returns that count, or 0.
uint32_t cpus_of_whole_samples(std::span<const uint8_t> bytes, size_t* work_left) {
    sample_skimmer samples(bytes, work_left);
    if (!samples.next()) return 0;
    const uint32_t cpus = samples.cpus();
    while (!samples.at_end()) {
        const uint32_t before = samples.uptime_100ms();
        if (!samples.next() || samples.cpus() != cpus || samples.uptime_100ms() < before) return 0;
    }
    return cpus;
}

// Whether `rest` is a sample for `cpus` CPUs that lacks its first few bytes. They are put back as
// far as they matter: the flag of the time zone, and the CPU count.
bool is_rest_of_sample(std::span<const uint8_t> rest, uint32_t cpus, size_t* work_left) {
    for (const bool with_timezone : {false, true}) {
        std::vector<uint8_t> bytes(OVERWRITTEN_MAX_BYTES);
        bytes[3] = with_timezone ? 0x80 : 0;
        for (size_t i = 0; i < 4; i++)
            bytes[(with_timezone ? 6 : 4) + i] = static_cast<uint8_t>(cpus >> 8 * i);
        for (size_t lost = OVERWRITTEN_MAX_BYTES; lost > 0; lost--) {
            if (rest.size() > *work_left) return false;
            *work_left -= rest.size();  // for the copy
            bytes.resize(lost);
            bytes.insert(bytes.end(), rest.begin(), rest.end());
            sample_skimmer sample(bytes, work_left);
            if (sample.next() && sample.at_end()) return true;
        }
    }
    return false;
}

// What the search for the second sample may cost, in bytes looked at. The right place is passed
// over once, and what stands in front of it up to sixty times; wrong places nearly all fail at
// once. Only a file made for it needs more, and is damaged then.
size_t search_work(size_t payload_bytes) {
    return 8 * payload_bytes + 128 * std::min(payload_bytes, FIRST_SAMPLE_MAX_BYTES);
}

// Looks for the second sample. It is found where everything fits from there to the last byte, in
// order of time, and what stands in front is the rest of a sample.
bool skip_overwritten_sample(std::span<const uint8_t> payload, cpu_record* record) {
    size_t work_left = search_work(payload.size());
    for (size_t at = 1; at < std::min(payload.size(), FIRST_SAMPLE_MAX_BYTES); at++) {
        const uint32_t cpus = cpus_of_whole_samples(payload.subspan(at), &work_left);
        if (cpus == 0 || !is_rest_of_sample(payload.first(at), cpus, &work_left)) continue;
        record->skipped_bytes = at;
        record->samples = decode_samples(payload.subspan(at));
        return true;
    }
    return false;
}

}  // namespace

cpu_record cpu_record_decode(std::span<const uint8_t> payload) {
    cpu_record record;
    try {
        record.samples = decode_samples(payload);
    } catch (const upload_error&) {
        if (!skip_left_over_line(payload, &record) && !skip_overwritten_sample(payload, &record))
            throw;
    }
    return record;
}

std::optional<double> cpu_load_percent(const cpu_record_times& before,
                                       const cpu_record_times& after) {
    const cpu_record_times offline;
    if (before.ticks == offline.ticks || after.ticks == offline.ticks) return std::nullopt;
    uint64_t total = 0, idle = 0;
    for (size_t i = 0; i < cpu_record_times::COUNTERS; i++) {
        // The counters wrap at 32 bits; the idle ones can also step back a little, which counts as
        // none.
        const uint32_t difference = after.ticks[i] - before.ticks[i];
        const uint32_t passed = difference > INT32_MAX ? 0 : difference;
        total += passed;
        if (i == cpu_record_times::IDLE || i == cpu_record_times::IOWAIT) idle += passed;
    }
    if (total == 0) return std::nullopt;
    return 100.0 * static_cast<double>(total - idle) / static_cast<double>(total);
}

double cpu_process_load_percent(uint16_t load_x500) {
    constexpr double ticks_a_scan = 10 * 100;  // 10 seconds of 100 clock ticks
    return load_x500 / 500.0 / ticks_a_scan * 100;
}
