// drop: a finished record of 300 kB becomes an upload file.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "bench_data.h"
#include "bench_floor.h"
#include "bench_record.h"
#include "framework/record/hand_over.h"

namespace {

constexpr size_t RECORD_BYTES = 300'000;

using make_bytes = byte_vector(size_t size);

void drop_ours(benchmark::State& state, make_bytes* make) {
    const auto bytes = make(RECORD_BYTES);
    bench_record record("drop");
    record.row.size = 1 << 20;
    for (auto _ : state) {
        state.PauseTiming();
        record.empty_dropbox();
        record.begin();
        record.append(bytes.data(), bytes.size(), 0);
        state.ResumeTiming();
        if (move_to_dropbox(&record.row, &record.handle, false) != 0) {
            state.SkipWithError("the hand-over failed");
            return;
        }
    }
}

void drop_floor(benchmark::State& state, make_bytes* make) {
    const auto bytes = make(RECORD_BYTES);
    const std::string path = bench_dir() + "/floor.tmp", dropped = bench_dir() + "/floor.dropped";
    for (auto _ : state) {
        state.PauseTiming();
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        floor_append(fd, bytes);
        close(fd);
        std::filesystem::remove(dropped);
        state.ResumeTiming();
        floor_drop(path, dropped);
    }
}

BENCHMARK_CAPTURE(drop_ours, cpu, bench_cpu_bytes)->Name("drop, CPU samples/ours");
BENCHMARK_CAPTURE(drop_floor, cpu, bench_cpu_bytes)->Name("drop, CPU samples/floor");
BENCHMARK_CAPTURE(drop_ours, text, bench_text_bytes)->Name("drop, log text/ours");
BENCHMARK_CAPTURE(drop_floor, text, bench_text_bytes)->Name("drop, log text/floor");
BENCHMARK_CAPTURE(drop_ours, noise, bench_noise_bytes)->Name("drop, noise/ours");
BENCHMARK_CAPTURE(drop_floor, noise, bench_noise_bytes)->Name("drop, noise/floor");

}  // namespace
