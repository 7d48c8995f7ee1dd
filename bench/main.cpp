// Runs the benchmarks and prints each workload beside its floor, as one table.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>
#include <vector>

#include "bench_data.h"

namespace {

struct workload {
    std::string name;
    double ours_us = 0;
    double floor_us = 0;
};

// Collects the fastest repetition of every benchmark "<workload>/ours" and "<workload>/floor": what
// disturbs a run only ever makes it slower.
class table_reporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            failed_ |= run.error_occurred;
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) add(run);
        }
    }

    bool failed() const { return failed_; }

    void print(FILE* out) {
        std::sort(workloads_.begin(), workloads_.end(),
                  [](const workload& a, const workload& b) { return a.name < b.name; });
        fmt::print(out, "| workload | ours | floor | ratio |\n|---|---:|---:|---:|\n");
        for (const auto& [name, ours_us, floor_us] : workloads_)
            fmt::print(out, "| {} | {:.1f} µs | {:.1f} µs | {:.2f} |\n", name, ours_us, floor_us,
                       ours_us / floor_us);
    }

  private:
    void add(const Run& run) {
        const auto& full_name = run.run_name.function_name;
        const size_t slash = full_name.rfind('/');
        auto& entry = find(full_name.substr(0, slash));
        double& best = full_name.substr(slash + 1) == "ours" ? entry.ours_us : entry.floor_us;
        const double us = run.real_accumulated_time / static_cast<double>(run.iterations) * 1e6;
        best = best > 0 ? std::min(best, us) : us;
    }

    workload& find(const std::string& name) {
        const auto it = std::find_if(workloads_.begin(), workloads_.end(),
                                     [&](const workload& entry) { return entry.name == name; });
        if (it != workloads_.end()) return *it;
        workloads_.push_back({name});
        return workloads_.back();
    }

    std::vector<workload> workloads_;
    bool failed_ = false;
};

// The process table traces what it does on standard output, which is nothing for the table's
// readers. Returns the real one.
FILE* silence_standard_output() {
    FILE* out = fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "w");
    if (!out || !freopen("/dev/null", "w", stdout))
        throw std::system_error(errno, std::generic_category());
    return out;
}

int run() {
    bench_enter_phone();
    FILE* out = silence_standard_output();
    table_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print(out);
    return fclose(out) == 0 && !reporter.failed() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    try {
        return run();
    } catch (const std::exception& error) {
        fmt::print(stderr, "hot_paths: {}\n", error.what());
        return 1;
    }
}
