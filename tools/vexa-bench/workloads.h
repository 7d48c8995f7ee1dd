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

// Records (record_workloads.cpp).
int bench_drop(long n);  // BENCH_IN in records of BENCH_REC bytes, each dropped into BENCH_OUT/up
int bench_append(
    long n);  // samples of BENCH_IN (u16 length + bytes) into records of 64 KiB compressed

// The log collector (alog_workload.cpp).
int bench_alog(long n);  // log entries of BENCH_IN from the log buffer into a record in BENCH_OUT

// Campaigns (campaign_workload.cpp).
int bench_campaign(long n);  // decodes campaign file BENCH_IN in memory, without the log

// The diagnostic collector (diag_workloads.cpp): packets of BENCH_IN (u16 length + bytes) through
// the two buffers, from a thread of their own,
int bench_diag(long n);   // into a record in BENCH_OUT without an end
int bench_diagz(long n);  // into records of 64 KiB compressed, each dropped into BENCH_OUT/up

// Driven time (step_workload.cpp): one thread waits, the clock jumps, the thread wakes. In a phone
// in driven time: vexa-phone run DIR --clock driven -- vexa-bench step N
int bench_step(long n);

// The whole daemon (daemon_workloads.cpp).
int bench_idle(long);  // opted in to nothing; prints "ready" once every thread waits, until SIGTERM
