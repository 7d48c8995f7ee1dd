// Sleeping processes, so that the machine has as many as a workload asks for.
#pragma once

#include <cstddef>

// Starts processes until "/proc" lists `wanted`. They stay until the program ends, so that both
// sides of a workload, and all repetitions, meet the same ones: what a scan reads depends on the
// PIDs.
void bench_have_processes(size_t wanted);
