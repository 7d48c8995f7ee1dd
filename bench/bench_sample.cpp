// sample: one CPU sample read, composed and appended, on the phone as it is delivered.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <climits>
#include <utility>

#include "base/unique_handle.h"
#include "bench_data.h"
#include "bench_floor.h"
#include "bench_record.h"
#include "collectors/cpu/cpu_stats.h"

namespace {

void sample_ours(benchmark::State& state) {
    bench_record record("sample");
    record.row.size = INT_MAX;  // never full: dropping has its own row
    record.begin();
    sampling_collector sampler{.row = &record.row};
    std::swap(sampler.record, record.handle);
    cpu_stats stats;
    stats.cpu_count = BENCH_PHONE_CPUS;
    for (auto _ : state) {
        if (prepare_cpu_stats(&stats, &sampler) != sample_result::TAKEN) {
            state.SkipWithError("the sample failed");
            break;
        }
    }
    vexastats_record_close(&sampler.record);
}

void sample_floor(benchmark::State& state) {
    const std::string path = bench_dir() + "/floor.tmp";
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    for (auto _ : state) floor_sample(fd.get(), BENCH_PHONE_CPUS);
}

BENCHMARK(sample_ours)->Name("sample/ours");
BENCHMARK(sample_floor)->Name("sample/floor");

}  // namespace
