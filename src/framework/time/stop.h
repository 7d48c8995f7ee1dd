// A stop request that no wait can miss: a flag to test between calls, and a descriptor that every
// wait of the daemon watches beside its own (framework/time/wait.h).
#pragma once

#include <atomic>
#include <cstdint>

struct stop_flag {
    std::atomic<uint8_t> raised{0};
    std::atomic<int> fd{
        -1};  // eventfd, readable for ever once raised; lives as long as the process
};

// Makes the descriptor, once; a flag without one is still honoured by waits that begin later.
// Returns 0 or a negative errno. Before the flag is shared with a second thread.
int stop_flag_open(stop_flag* stop);

// Makes it the stop request of a thread that a signal ends: all waits on it end while that signal
// is pending for signal descriptor `signal_fd`, which outlives them. Nobody raises such a flag, and
// stop_flag_is_raised says no. Before the flag is shared with a second thread.
void stop_flag_by_signal(stop_flag* stop, int signal_fd);

// Raises the flag and ends every present and future wait on it. Returns true for the call that did.
// Async-signal-safe; any thread.
bool stop_flag_raise(stop_flag* stop);

inline bool stop_flag_is_raised(const stop_flag& stop) {
    return stop.raised.load() != 0;
}
