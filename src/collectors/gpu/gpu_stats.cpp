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

// ---- The parts of a sample. They return 0 or -EINVAL, logged, unless they say otherwise.

int read_number(const char* path, int32_t* value) {
    const int result = vexastats_read_sysfs_number(path, value);
    if (result == 0) return 0;
    if (result == -ENODATA) {
        ALOGE("Invalid file format. err:%d\n", errno);
    } else {
        ALOGE("failed to read %s. err:%d\n", path, result);
    }
    return -EINVAL;
}

int read_level_count(uint32_t* count) {
    int32_t value = 0;
    if (read_number(LEVEL_COUNT_FILE, &value) != 0) return -EINVAL;
    if (value < 0 || value > MAX_LEVELS) {
        ALOGE("Invalid file format. err:%d\n", errno);
        return -EINVAL;
    }
    *count = static_cast<uint32_t>(value);
    return 0;
}

int read_busy(gpu_stats* stats, const collector_info& row, gpu_sample* sample) {
    if (read_number(GPU_BUSY_FILE, &sample->busy_percent) != 0) return -EINVAL;
    stats->low_load_count = sample->busy_percent > row.threshold ? 0 : stats->low_load_count + 1;
    return 0;
}

int read_list(const char* path, uint64_t gpu_level::*field, grow_array<gpu_level>* levels) {
    char line[LIST_SIZE];
    const int result = vexastats_read_sysfs(path, line, sizeof line);
    if (result != 0) {
        ALOGE("failed to read %s. err:%d\n", path, result);
        return -EINVAL;
    }
    if (!parse_gpu_list(line, field, levels->data(), levels->size())) {
        ALOGE("Invalid file format. err:%d\n", errno);
        return -EINVAL;
    }
    return 0;
}

// Also returns -ENOMEM.
int read_levels(gpu_stats* stats, gpu_sample* sample) {
    if (!stats->levels.assign_zeroed(sample->level_count)) {
        ALOGE("failed to alloc gpu freq. err:%d\n", errno);
        return -ENOMEM;
    }
    int result = read_list(FREQUENCIES_FILE, &gpu_level::frequency_Hz, &stats->levels);
    if (result == 0) result = read_list(TIMES_FILE, &gpu_level::time, &stats->levels);
    sample->levels = stats->levels.data();
    return result;
}

int read_charge_counter(gpu_sample* sample) {
    if (sampling_read_charge_counter(&sample->charge_counter_uAh)) return 0;
    ALOGE("failed to read bms cc\n");
    return -EINVAL;
}

}  // namespace

int prepare_gpu_stats(gpu_stats* stats, collector_info* row, record_handle* record) {
    stats->storage.failed = !record->file;
    if (stats->storage.failed) return -EINVAL;

    gpu_sample sample;
    if (read_level_count(&sample.level_count) != 0) return -EINVAL;
    const timezone_state zone = sampling_timezone(&stats->timezone, *row);
    if (!stats->bytes.assign_zeroed(gpu_sample_len(zone.changed, sample.level_count))) {
        ALOGE("failed to alloc buffer\n");
        return -ENOMEM;
    }
    sample.time_stamp = sampling_time_stamp(zone.changed);
    sample.timezone_min = zone.offset_min;
    if (zone.changed) {
        ALOGI("%s: timezone changed %d\n", "prepare_gpu_stats", zone.offset_min);
    }

    int result = read_busy(stats, *row, &sample);
    if (result == 0) result = read_number(CLOCK_FILE, &sample.clock_Hz);
    if (result == 0) result = read_levels(stats, &sample);
    if (result == 0) result = read_charge_counter(&sample);
    if (result != 0) return result;
    gpu_sample_put(stats->bytes.data(), sample);
    return sampling_write(row, record, stats->bytes, "prepare_gpu_stats", &stats->storage);
}

int poll_gpu_stats(gpu_stats* stats, collector_info* row, record_handle* record) {
    stats->low_load_count = 0;
    stats->storage.failed = false;
    for (;;) {
        if (!row->enabled || !vexastats_sleep_ms(row->interval, row->stop)) return 0;
        if (!row->enabled) return 0;  // consent can go in the minute that a sleep may take
        const int result = prepare_gpu_stats(stats, row, record);
        if (result != 0) {
            ALOGE("failed to prepare gpu stats. err:%d\n", result);
            return -EINVAL;
        }
        if (stats->low_load_count > 1) return 0;
    }
}
