// append: CPU samples one by one into a record of 64 KiB compressed, up to the finished upload. One
// round of the benchmark is one upload.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "bench_data.h"
#include "bench_floor.h"
#include "bench_record.h"

namespace {

constexpr size_t SAMPLES = 4000;  // enough for several uploads; then they begin again

// Appends until the record rolls over; returns how many samples that took.
size_t fill_one_upload(bench_record* record, const std::vector<byte_vector>& samples,
                       size_t* next) {
    for (size_t count = 1;; count++) {
        const auto& sample = samples[(*next)++ % samples.size()];
        if (record->append(sample.data(), sample.size(), WRITE_BEGIN_NEW)) return count;
    }
}

void append_ours(benchmark::State& state) {
    const auto samples = bench_cpu_samples(SAMPLES);
    bench_record record("append");
    record.begin();
    size_t next = 0, count = 0;
    fill_one_upload(&record, samples, &next);  // the estimate settles
    for (auto _ : state) {
        count += fill_one_upload(&record, samples, &next);
        state.PauseTiming();
        record.empty_dropbox();
        state.ResumeTiming();
    }
    state.counters["samples"] =
        benchmark::Counter(static_cast<double>(count), benchmark::Counter::kAvgIterations);
}

// How many samples an upload takes, as the daemon's rule has it: both sides do the same.
size_t samples_per_upload(const std::vector<byte_vector>& samples) {
    bench_record record("append_count");
    record.begin();
    size_t next = 0;
    fill_one_upload(&record, samples, &next);
    return fill_one_upload(&record, samples, &next);
}

void append_floor(benchmark::State& state) {
    const auto samples = bench_cpu_samples(SAMPLES);
    const size_t per_upload = samples_per_upload(samples);
    const std::string path = bench_dir() + "/floor.tmp", dropped = bench_dir() + "/floor.dropped";
    size_t next = 0;
    for (auto _ : state) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        for (size_t i = 0; i < per_upload; i++) floor_append(fd, samples[next++ % samples.size()]);
        close(fd);
        floor_drop(path, dropped);
        state.PauseTiming();
        std::filesystem::remove(dropped);
        state.ResumeTiming();
    }
    state.counters["samples"] = static_cast<double>(per_upload);
}

BENCHMARK(append_ours)->Name("append, up to an upload/ours");
BENCHMARK(append_floor)->Name("append, up to an upload/floor");

}  // namespace
