// vexa-bench WORKLOAD N does a workload N times with the daemon's own functions, so that its cost
// can be measured from outside: two runs with different N differ by the workload alone.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <exception>

#include "workloads.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_UNKNOWN_WORKLOAD = 77;

struct workload {
    const char* name;
    int (*run)(long n);
};

constexpr workload WORKLOADS[] = {
    {"scan", bench_scan},
    {"scan_cold", bench_scan_cold},
    {"sample", bench_sample},
    {"pace_scan", bench_pace_scan},
    {"pace_sample", bench_pace_sample},
    {"drop", bench_drop},
    {"append", bench_append},
    {"alog", bench_alog},
    {"campaign", bench_campaign},
    {"diag", bench_diag},
    {"diagz", bench_diagz},
    {"step", bench_step},
    {"idle", bench_idle},
};

int usage() {
    fprintf(stderr, "usage: vexa-bench WORKLOAD N\nworkloads:");
    for (const workload& known : WORKLOADS) fprintf(stderr, " %s", known.name);
    fprintf(stderr, "\n");
    return EXIT_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return usage();
    for (const workload& known : WORKLOADS) {
        if (strcmp(known.name, argv[1]) != 0) continue;
        try {
            return known.run(strtol(argv[2], nullptr, 10));
        } catch (const std::exception& error) {
            fprintf(stderr, "vexa-bench %s: %s\n", argv[1], error.what());
            return EXIT_FAILURE;
        }
    }
    return EXIT_UNKNOWN_WORKLOAD;
}
