// scan: one pass over this machine's /proc into the process table, filled out with sleeping
// processes. Every cpuset class is taken: on a machine that is no phone, all processes are of the
// last one. In scan_cold the table is emptied first, so that names and UIDs are read too.
#include <benchmark/benchmark.h>
#include <dirent.h>

#include "base/unique_handle.h"
#include "bench_floor.h"
#include "bench_processes.h"
#include "collectors/cpu/readproc.h"

namespace {

constexpr size_t PROCESSES = 1000;
constexpr uint32_t EVERY_CLASS = 0xF;

enum class table { WARM, COLD };

void scan_once(proc_scanner* scanner, DIR* proc) {
    rewinddir(proc);
    vexa_inc_proc_tbl_tick(&scanner->table);
    vexa_ps_readproc(scanner, proc, EVERY_CLASS);
}

void scan_ours(benchmark::State& state, table kind) {
    bench_have_processes(PROCESSES);
    const unique_dir proc(opendir("/proc"));
    proc_scanner scanner;
    vexa_init_proc_tbl(&scanner.table);
    scan_once(&scanner, proc.get());
    for (auto _ : state) {
        if (kind == table::COLD) {
            vexa_release_proc_tbl(&scanner.table);
            vexa_init_proc_tbl(&scanner.table);
        }
        scan_once(&scanner, proc.get());
    }
}

void scan_floor(benchmark::State& state, table kind) {
    bench_have_processes(PROCESSES);
    const unique_dir proc(opendir("/proc"));
    floor_scanner scanner;
    scanner.scan(proc.get(), false);
    for (auto _ : state) scanner.scan(proc.get(), kind == table::COLD);
}

BENCHMARK_CAPTURE(scan_ours, warm, table::WARM)->Name("scan, 1000 processes/ours");
BENCHMARK_CAPTURE(scan_floor, warm, table::WARM)->Name("scan, 1000 processes/floor");
BENCHMARK_CAPTURE(scan_ours, cold, table::COLD)->Name("scan_cold, 1000 processes/ours");
BENCHMARK_CAPTURE(scan_floor, cold, table::COLD)->Name("scan_cold, 1000 processes/floor");

}  // namespace
