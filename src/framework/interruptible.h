// Ending a library call that blocks without a descriptor to wait on and without a time-out. Such a
// call only ends early when a signal handler runs in its thread (the daemon installs its handlers
// without automatic restart), and a signal that comes just before the call is lost on it. So the
// thread lets SIGINT in for the calls alone, and whoever stops it sends SIGINT again and again
// until it has left them:
//
//   thread                                    who stops it
//   if (!interruptible_enter(...)) end        stop_flag_raise(stop)
//   result = library_call()                   while (interruptible_nudge(...)) pause
//   ...
//   interruptible_leave(...)
//
// Either the thread sees the flag as it enters, or its stopper sees the thread inside. It is
// signalled only while it is inside, so never once it has ended.
#pragma once

#include <pthread.h>

#include <atomic>

#include "framework/stop.h"
#include "framework/sync.h"

struct interruptible {
    vexa_mutex mutex{};
    pthread_t thread GUARDED_BY(mutex){};
    std::atomic<bool> inside{false};  // written under the mutex, by the thread itself
};

// To be called before each blocking call. The first one lets SIGINT in; the ones that follow, up to
// interruptible_leave, only test the flag and cost next to nothing. Returns false, with SIGINT
// blocked, once `stop` is raised: the call must not be made. Between this and the leave the thread
// makes the library's calls and works in memory; anything that a signal could cut short comes after
// the leave. SIGINT must have a handler, and be blocked in the thread. Thread: always the same one.
bool interruptible_enter(interruptible* section, const stop_flag& stop);

// Blocks SIGINT again; harmless when the thread is not inside. Leaves errno as it was. Thread: the
// one that entered.
void interruptible_leave(interruptible* section);

// Sends SIGINT to the thread that is inside. Returns whether there is one; the caller then comes
// again in a few milliseconds. Any other thread.
bool interruptible_nudge(interruptible* section);
