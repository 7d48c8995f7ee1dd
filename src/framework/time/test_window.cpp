#include "framework/time/test_window.h"

#include <stdlib.h>
#include <time.h>

void vexa_test_window() {
    static const long window_us = [] {
        const char* text = getenv("VEXA_TEST_WINDOW_US");
        return text ? strtol(text, nullptr, 10) : 0;
    }();
    if (window_us <= 0) return;
    timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    do {
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - start.tv_sec) * 1000000 + (now.tv_nsec - start.tv_nsec) / 1000 <
             window_us);
}
