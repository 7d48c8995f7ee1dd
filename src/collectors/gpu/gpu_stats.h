// The sampling loop of the GPU collector and one sample of it. All functions: the collector's
// thread.
#pragma once

#include <cstdint>

#include "base/grow_array.h"
#include "collectors/gpu/gpu_sample.h"
#include "framework/row/collector_info.h"
#include "sampling/sampling.h"

// Also the file whose change the collector waits for.
inline constexpr char GPU_BUSY_FILE[] = "/sys/class/kgsl/kgsl-3d0/gpu_busy_percentage";

// What the collector keeps from one sample to the next.
struct gpu_stats {
    timezone_memory timezone{};
    int low_load_count = 0;  // samples in a row with the GPU at or below the threshold

    // Work space, used again for every sample.
    grow_array<gpu_level> levels{};
    grow_array<uint8_t> bytes{};
};

// Samples every `interval` ms of the row until the row is disabled or stopped, the GPU was found at
// or below its `threshold` per cent twice in a row, or a sample failed, which is logged.
sample_result poll_gpu_stats(gpu_stats* stats, sampling_collector* c);

// Takes one sample and appends it to the record. A failure is logged.
sample_result prepare_gpu_stats(gpu_stats* stats, sampling_collector* c);
