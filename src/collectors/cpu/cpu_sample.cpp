#include "collectors/cpu/cpu_sample.h"

#include <string.h>

#include "base/little_endian.h"

namespace {

constexpr uint32_t HAS_TIMEZONE_BIT = 1u << 31;

// Time stamp, number of cores, charge counter, power word, and the counts of zones, network entries
// and processes.
constexpr size_t FIXED_LEN = 4 + 4 + 4 + 2 + 2 + 2 + 2;
constexpr size_t TIMEZONE_LEN = 2;
constexpr size_t CPU_LEN = 7 * 4 + 4;
constexpr size_t TEMPERATURE_LEN = 4;

uint8_t* put_times(uint8_t* out, const cpu_times& times) {
    for (const uint32_t ticks : {times.user, times.nice, times.system, times.idle, times.iowait,
                                 times.irq, times.softirq}) {
        out = put_le(out, ticks);
    }
    return out;
}

uint8_t* put_thermal(uint8_t* out, const thermal_list& thermal) {
    out = put_le(out, static_cast<uint16_t>(thermal.zones.size()));
    for (const thermal_zone& zone : thermal.zones) {
        memcpy(out, thermal.names.data() + zone.name_at, zone.name_len + 1);
        out = put_le(out + zone.name_len + 1, zone.temperature);
    }
    return out;
}

}  // namespace

size_t cpu_sample_base_len(bool has_timezone, int32_t cpu_count, const thermal_list& thermal) {
    return FIXED_LEN + (has_timezone ? TIMEZONE_LEN : 0) +
           static_cast<size_t>(cpu_count) * CPU_LEN + thermal.names.size() +
           thermal.zones.size() * TEMPERATURE_LEN;
}

uint8_t* cpu_sample_put(uint8_t* out, const cpu_sample& sample) {
    out = put_le(out, sample.time_stamp);
    if (sample.time_stamp & HAS_TIMEZONE_BIT) out = put_le(out, sample.timezone_min);
    out = put_le(out, static_cast<uint32_t>(sample.cpu_count));
    for (int32_t i = 0; i < sample.cpu_count; ++i) out = put_times(out, sample.times[i]);
    for (int32_t i = 0; i < sample.cpu_count; ++i) out = put_le(out, sample.frequencies_kHz[i]);
    out = put_le(out, sample.charge_counter_uAh);
    out = put_le(out, sample.power_word);
    out = put_thermal(out, *sample.thermal);
    out = put_le(out, sample.network_count);
    for (uint16_t i = 0; i < sample.network_count; ++i)
        out = network_row_put(out, sample.network[i]);
    return put_le(out, sample.process_count);
}
