#include <stdlib.h>

#include <stdexcept>

#include "host/driven.h"
#include "platform/clock.h"
#include "workloads.h"

int bench_step(long n) {
    if (!driven_is_on())
        throw std::runtime_error(
            "to be run by vexa-phone run DIR --clock driven -- vexa-bench step N");
    for (long i = 0; i < n; ++i) (void)platform_poll(nullptr, 0, 1);
    return EXIT_SUCCESS;
}
