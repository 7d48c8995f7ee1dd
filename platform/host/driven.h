// Driven time, seen by a program in the phone: its clocks stand still while any thread can run, and
// one thread runs at a time, the one that has the turn. A thread without it waits here before it
// does anything that others could see through the platform.
//
// In an ordinary phone driven_is_on() is false and nothing else of this is called.
#pragma once

#include <poll.h>

#include <cstdint>

// Whether this phone's time is driven. The first call looks; any thread.
bool driven_is_on();

int64_t driven_boot_ns();
int64_t driven_real_ns();

// Waits for the turn unless the calling thread has it. Also makes the thread known. In a phone that
// shuffles, a thread that has the turn may lose it here for a while. Not for signal handlers.
void driven_take_turn();

// As ppoll on fds until the deadline (DRIVEN_NEVER: none) on the boot-time or the wall clock; gives
// the turn up meanwhile.
int driven_poll(pollfd* fds, nfds_t count, bool is_wall_clock, int64_t deadline_ns);

// Gives the turn up for a wait in the kernel that others end, and takes it again at the end.
class driven_wait {
  public:
    driven_wait();
    ~driven_wait();
    driven_wait(const driven_wait&) = delete;
    driven_wait& operator=(const driven_wait&) = delete;
};
