#define LOG_TAG "vexastatsd"

#include "collectors/cpu/cpu_stats.h"

#include <algorithm>

#include "collectors/cpu/cpu_sample.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "platform/log.h"

namespace {

constexpr int64_t SCAN_PERIOD_MS = 10000;

// ---- The parts of a sample

void read_thermal(cpu_stats* stats) {
    if (get_thermal_stats(&stats->thermal) != 0) {
        ALOGE("%s: failed to get thermal info\n", "prepare_cpu_stats");
    }
}

bool read_times(cpu_stats* stats, cpu_sample* sample) {
    if (!stats->times.assign_zeroed(static_cast<size_t>(stats->cpu_count))) {
        ALOGE("failed to alloc cpustat\n");
        return false;
    }
    if (read_cpu_times(stats->times.data(), stats->cpu_count) != 0) {
        ALOGE("failed to read cpu usage\n");
        return false;
    }
    sample->times = stats->times.data();
    return true;
}

bool read_frequencies(cpu_stats* stats, const collector_info& row, cpu_sample* sample) {
    for (int32_t cpu = 0; cpu < stats->cpu_count; ++cpu) {
        int32_t& frequency_kHz = stats->frequencies_kHz[static_cast<size_t>(cpu)];
        if (read_cpu_frequency(cpu, &frequency_kHz) != 0) return false;
        if (cpu != 0) continue;
        stats->low_frequency_count =
            frequency_kHz > row.threshold ? 0 : stats->low_frequency_count + 1;
    }
    sample->frequencies_kHz = stats->frequencies_kHz.data();
    return true;
}

void read_power(cpu_stats* stats, cpu_sample* sample) {
    const power_values power = read_power_values("prepare_cpu_stats");
    sample->charge_counter_uAh = power.charge_counter_uAh;
    sample->power_word = pack_power_word(power);
    power_trigger_update(&stats->power, vexastats_mono_time_ms(), power.charge_counter_uAh);
}

void read_network(cpu_stats* stats) {
    if (get_network_stats(&stats->traffic, &stats->network) != 0) {
        ALOGE("%s: failed to get network stats\n", "prepare_cpu_stats");
    }
}

// Adds the network entries, for which it makes room behind the sample's base.
bool add_network(cpu_stats* stats, size_t base_len, cpu_sample* sample) {
    sample->network = stats->network.nodes.data();
    sample->network_count = static_cast<uint16_t>(stats->network.nodes.size());
    if (stats->bytes.assign_zeroed(base_len + sample->network_count * NETWORK_ROW_LEN)) return true;
    ALOGE("%s: failed to realloc for netstat\n", "prepare_cpu_stats");
    return false;
}

// Makes room for the process block, of *process_len bytes.
bool add_processes(cpu_stats* stats, size_t base_len, cpu_sample* sample, uint64_t* process_len) {
    if (vexaps_store_ps_info(stats->processes.table, nullptr, &stats->network,
                             &sample->process_count, process_len, UINT64_MAX) != 0 ||
        *process_len == 0) {
        ALOGE("%s: failed to get size of ps stat\n", "prepare_cpu_stats");
        sample->process_count = 0;
        *process_len = 0;
    }
    if (stats->bytes.assign_zeroed(base_len + *process_len)) return true;
    ALOGE("%s: failed to realloc\n", "prepare_cpu_stats");
    return false;
}

// A sample carries either the network entries or the process block, in which the entries of each
// process's UID stand.
sample_result compose(cpu_stats* stats, size_t base_len, cpu_sample* sample) {
    uint64_t process_len = 0;
    const bool has_room = stats->power.snapshot
                              ? add_processes(stats, base_len, sample, &process_len)
                              : add_network(stats, base_len, sample);
    if (!has_room) return sample_result::NO_MEMORY;
    uint8_t* processes = cpu_sample_put(stats->bytes.data(), *sample);
    if (sample->process_count == 0) return sample_result::TAKEN;
    uint16_t count = 0;
    uint64_t written = 0;
    if (vexaps_store_ps_info(stats->processes.table, processes, &stats->network, &count, &written,
                             process_len) == 0)
        return sample_result::TAKEN;
    ALOGE("%s: failed to get ps stat\n", "prepare_cpu_stats");
    return sample_result::SOURCE_FAILED;
}

// ---- The loop

// Scans the processes when the last scan is long enough ago.
void scan_processes(cpu_stats* stats, DIR* proc_dir, uint64_t now_ms, uint64_t* scan_ms) {
    if (!proc_dir || !stats->tracks_processes || now_ms - *scan_ms <= SCAN_PERIOD_MS) return;
    rewinddir(proc_dir);
    vexa_inc_proc_tbl_tick(&stats->processes.table);
    vexa_ps_readproc(&stats->processes, proc_dir, PROC_CLASSES_REPORTED);
    *scan_ms = now_ms;
}

// *sample_ms is when the last one was taken. A failure is logged.
sample_result sample_when_due(cpu_stats* stats, sampling_collector* c, uint64_t now_ms,
                              uint64_t* sample_ms) {
    if (now_ms - *sample_ms <= static_cast<uint64_t>(c->row->interval)) return sample_result::TAKEN;
    const sample_result result = prepare_cpu_stats(stats, c);
    if (result == sample_result::TAKEN) {
        *sample_ms = now_ms;
    } else {
        ALOGE("failed to prepare cpu stats. err:%d\n", sample_result_number(result));
    }
    return result;
}

void sleep_between_looks(const cpu_stats& stats, const collector_info& row) {
    const int64_t longest_ms = stats.tracks_processes ? SCAN_PERIOD_MS : INT64_MAX;
    vexastats_sleep_ms(std::min<int64_t>(row.interval, longest_ms), row.stop);
}

}  // namespace

sample_result prepare_cpu_stats(cpu_stats* stats, sampling_collector* c) {
    if (!c->record.file) return sample_result::STORAGE_FAILED;

    const timezone_state zone = sampling_timezone(&stats->timezone, *c->row);
    read_thermal(stats);
    const size_t base_len = cpu_sample_base_len(zone.changed, stats->cpu_count, stats->thermal);
    if (!stats->bytes.reserve(base_len) ||
        !stats->frequencies_kHz.assign_zeroed(static_cast<size_t>(stats->cpu_count))) {
        ALOGE("failed to alloc\n");
        return sample_result::NO_MEMORY;
    }
    cpu_sample sample{.time_stamp = sampling_time_stamp(zone.changed),
                      .timezone_min = zone.offset_min,
                      .cpu_count = stats->cpu_count,
                      .thermal = &stats->thermal};
    if (zone.changed) {
        ALOGD("%s: timezone changed %d\n", "prepare_cpu_stats", zone.offset_min);
    }

    if (!read_times(stats, &sample) || !read_frequencies(stats, *c->row, &sample))
        return sample_result::SOURCE_FAILED;
    read_power(stats, &sample);
    read_network(stats);

    const sample_result composed = compose(stats, base_len, &sample);
    if (composed != sample_result::TAKEN) return composed;
    return sampling_write(c, stats->bytes, "prepare_cpu_stats");
}

sample_result poll_cpu_stats(cpu_stats* stats, sampling_collector* c, DIR* proc_dir) {
    const collector_info& row = *c->row;
    uint64_t sample_ms = 0;
    uint64_t scan_ms = 0;
    stats->low_frequency_count = 0;
    for (;;) {
        if (!row.enabled || stop_flag_is_raised(row.stop)) return sample_result::TAKEN;
        const uint64_t now_ms = vexastats_mono_time_ms();
        scan_processes(stats, proc_dir, now_ms, &scan_ms);
        const sample_result result = sample_when_due(stats, c, now_ms, &sample_ms);
        if (result != sample_result::TAKEN) return result;
        sleep_between_looks(*stats, row);
        if (stats->low_frequency_count >= 1) return sample_result::TAKEN;
    }
}
