#define LOG_TAG "vexastatsd"

#include "collectors/gpu/gpu_stats.h"

#include <errno.h>

#include "framework/sysfs/sysfs.h"
#include "framework/time/wait.h"
#include "platform/log.h"

namespace {

constexpr char CLOCK_FILE[] = "/sys/class/kgsl/kgsl-3d0/gpuclk";
constexpr char LEVEL_COUNT_FILE[] = "/sys/class/kgsl/kgsl-3d0/num_pwrlevels";
constexpr char FREQUENCIES_FILE[] = "/sys/class/kgsl/kgsl-3d0/gpu_available_frequencies";
constexpr char TIMES_FILE[] = "/sys/class/kgsl/kgsl-3d0/gpu_clock_stats";

// A list is one page of the kernel's at most, which has no room for more words than this.
constexpr size_t LIST_SIZE = 4096 + 1;
constexpr int32_t MAX_LEVELS = LIST_SIZE / 2;

// ---- The parts of a sample. Failures are logged.

bool read_number(const char* path, int32_t* value) {
    const int result = vexastats_read_sysfs_number(path, value);
    if (result == 0) return true;
    if (result == -ENODATA) {
        ALOGE("Invalid file format. err:%d\n", errno);
    } else {
        ALOGE("failed to read %s. err:%d\n", path, result);
    }
    return false;
}

bool read_level_count(uint32_t* count) {
    int32_t value = 0;
    if (!read_number(LEVEL_COUNT_FILE, &value)) return false;
    if (value < 0 || value > MAX_LEVELS) {
        ALOGE("Invalid file format. err:%d\n", errno);
        return false;
    }
    *count = static_cast<uint32_t>(value);
    return true;
}

bool read_busy(gpu_stats* stats, const collector_info& row, gpu_sample* sample) {
    if (!read_number(GPU_BUSY_FILE, &sample->busy_percent)) return false;
    stats->low_load_count = sample->busy_percent > row.threshold ? 0 : stats->low_load_count + 1;
    return true;
}

bool read_list(const char* path, uint64_t gpu_level::*field, grow_array<gpu_level>* levels) {
    char line[LIST_SIZE];
    const int result = vexastats_read_sysfs(path, line, sizeof line);
    if (result != 0) {
        ALOGE("failed to read %s. err:%d\n", path, result);
        return false;
    }
    if (parse_gpu_list(line, field, levels->data(), levels->size())) return true;
    ALOGE("Invalid file format. err:%d\n", errno);
    return false;
}

sample_result read_levels(gpu_stats* stats, gpu_sample* sample) {
    if (!stats->levels.assign_zeroed(sample->level_count)) {
        ALOGE("failed to alloc gpu freq. err:%d\n", errno);
        return sample_result::NO_MEMORY;
    }
    sample->levels = stats->levels.data();
    const bool is_read = read_list(FREQUENCIES_FILE, &gpu_level::frequency_Hz, &stats->levels) &&
                         read_list(TIMES_FILE, &gpu_level::time, &stats->levels);
    return is_read ? sample_result::TAKEN : sample_result::SOURCE_FAILED;
}

bool read_charge_counter(gpu_sample* sample) {
    if (sampling_read_charge_counter(&sample->charge_counter_uAh)) return true;
    ALOGE("failed to read bms cc\n");
    return false;
}

}  // namespace

sample_result prepare_gpu_stats(gpu_stats* stats, sampling_collector* c) {
    if (!c->record.file) return sample_result::STORAGE_FAILED;

    gpu_sample sample;
    if (!read_level_count(&sample.level_count)) return sample_result::SOURCE_FAILED;
    const timezone_state zone = sampling_timezone(&stats->timezone, *c->row);
    if (!stats->bytes.assign_zeroed(gpu_sample_len(zone.changed, sample.level_count))) {
        ALOGE("failed to alloc buffer\n");
        return sample_result::NO_MEMORY;
    }
    sample.time_stamp = sampling_time_stamp(zone.changed);
    sample.timezone_min = zone.offset_min;
    if (zone.changed) {
        ALOGI("%s: timezone changed %d\n", "prepare_gpu_stats", zone.offset_min);
    }

    if (!read_busy(stats, *c->row, &sample) || !read_number(CLOCK_FILE, &sample.clock_Hz))
        return sample_result::SOURCE_FAILED;
    const sample_result levels = read_levels(stats, &sample);
    if (levels != sample_result::TAKEN) return levels;
    if (!read_charge_counter(&sample)) return sample_result::SOURCE_FAILED;
    gpu_sample_put(stats->bytes.data(), sample);
    return sampling_write(c, stats->bytes, "prepare_gpu_stats");
}

sample_result poll_gpu_stats(gpu_stats* stats, sampling_collector* c) {
    const collector_info& row = *c->row;
    stats->low_load_count = 0;
    for (;;) {
        if (!row.enabled || !vexastats_sleep_ms(row.interval, row.stop))
            return sample_result::TAKEN;
        // Consent can go in the minute that a sleep may take.
        if (!row.enabled) return sample_result::TAKEN;
        const sample_result result = prepare_gpu_stats(stats, c);
        if (result != sample_result::TAKEN) {
            ALOGE("failed to prepare gpu stats. err:%d\n", sample_result_number(result));
            return result;
        }
        if (stats->low_load_count > 1) return result;
    }
}
