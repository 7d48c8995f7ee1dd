// The phone in which the workloads run: this machine's /proc, and over it what BENCH_TREE holds.
#pragma once

#include <string>

// Value of an environment variable; throws std::runtime_error when it is not set.
std::string bench_env(const char* name);

// Enters a fresh phone with BENCH_TREE/sys as its /sys, and BENCH_TREE/proc/net as this process's
// /proc/net. BENCH_OUT is seen as on this machine. Throws std::exception.
void bench_phone_enter();
