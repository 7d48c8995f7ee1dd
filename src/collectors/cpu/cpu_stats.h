// The sampling loop of the CPU collector and one sample of it. All functions: the collector's
// thread.
#pragma once

#include <dirent.h>

#include <cstdint>

#include "base/grow_array.h"
#include "collectors/cpu/cpu_times.h"
#include "collectors/cpu/network_stats.h"
#include "collectors/cpu/power_stats.h"
#include "collectors/cpu/readproc.h"
#include "collectors/cpu/thermal_stats.h"
#include "framework/row/collector_info.h"
#include "sampling/sampling.h"

// What the collector keeps from one sample to the next.
struct cpu_stats {
    int32_t cpu_count = -1;
    bool tracks_processes = false;
    timezone_memory timezone{};
    power_trigger power{};
    proc_scanner processes{};
    int low_frequency_count = 0;  // samples in a row with core 0 at or below the threshold

    // Work space, used again for every sample.
    thermal_list thermal{};
    grow_array<cpu_times> times{};
    grow_array<int32_t> frequencies_kHz{};
    network_table traffic{};
    network_list network{};
    grow_array<uint8_t> bytes{};
};

// Samples every `interval` ms of the row, and scans the processes every 10 s when `proc_dir` (may
// be null) and stats->tracks_processes allow it, until the row is disabled or stopped, core 0 is
// found at or below its `threshold`, or a sample failed, which is logged.
sample_result poll_cpu_stats(cpu_stats* stats, sampling_collector* c, DIR* proc_dir);

// Takes one sample and appends it to the record. A failure is logged. A source other than the
// cores' times and frequencies never fails a sample.
sample_result prepare_cpu_stats(cpu_stats* stats, sampling_collector* c);
