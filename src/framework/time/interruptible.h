// Ending a library call that blocks without a descriptor to wait on and without a time-out: a read
// of the platform's log. No signal ends it, for the library calls again on EINTR. What does end it
// is something to read. So whoever stops the thread writes a line into that log, and again until
// the thread has left its calls:
//
//   thread                                    who stops it
//   if (!interruptible_enter(...)) end        stop_flag_raise(stop)
//   result = library_call()                   while (interruptible_is_inside(...)) log, pause
//   ...
//   interruptible_leave(...)
//
// Either the thread sees the flag as it enters, or its stopper sees the thread inside. A line that
// is written just before the call begins is not lost: the log keeps it for the read.
#pragma once

#include <atomic>

#include "framework/time/stop.h"

// The line that ends a blocked read of the log. It is the daemon's own and nobody's finding: a
// collector of log entries leaves it out.
inline constexpr char INTERRUPTIBLE_WAKE_UP[] = "Waking up a blocked read of the log\n";

struct interruptible {
    std::atomic<bool> inside{false};  // written by the thread itself
};

// To be called before each blocking call. Returns false, and the thread is not inside, once `stop`
// is raised: the call must not be made. Thread: always the same one.
bool interruptible_enter(interruptible* section, const stop_flag& stop);

// Says that no call is under way; harmless when the thread is not inside. Thread: the one that
// entered.
void interruptible_leave(interruptible* section);

// Whether a call may be under way, after the stop flag was raised: the caller then writes a line
// into the log that is read, and comes again in a few milliseconds. Any thread.
bool interruptible_is_inside(const interruptible& section);
