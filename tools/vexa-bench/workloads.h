// The workloads that vexa-bench knows, in groups of one file each. Every function does its workload
// `n` times (the paced ones: every n seconds until SIGTERM) and returns the exit code; it throws
// std::exception when its inputs are missing. BENCH_... are environment variables.
#pragma once

// CPU collector (cpu_workloads.cpp).
int bench_scan(long n);       // one pass over /proc into the process table, all cpuset classes
int bench_scan_cold(long n);  // the same with the process table emptied first
int bench_sample(long n);     // one CPU sample of BENCH_TREE appended to a record in BENCH_OUT
int bench_pace_scan(long seconds);
int bench_pace_sample(long seconds);
