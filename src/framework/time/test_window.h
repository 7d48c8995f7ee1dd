// Tests widen the windows in which a wake-up could get lost, between a test of a flag and the wait
// that follows it. In the device build the macro is nothing.
#pragma once

#ifdef VEXA_TEST_WINDOWS
void vexa_test_window();  // spins for VEXA_TEST_WINDOW_US microseconds (environment; default: none)
#define VEXA_TEST_WINDOW() vexa_test_window()
#else
#define VEXA_TEST_WINDOW() ((void)0)
#endif
