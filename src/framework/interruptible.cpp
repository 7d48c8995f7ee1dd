#include "framework/interruptible.h"

#include <errno.h>
#include <signal.h>

#include "framework/test_window.h"

namespace {

void mask_sigint(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(how, &set, nullptr);
}

}  // namespace

bool interruptible_enter(interruptible* section, const stop_flag& stop) {
    if (!section->inside) {
        {
            const vexa_lock lock(section->mutex);
            section->thread = pthread_self();
            section->inside = true;
        }
        mask_sigint(SIG_UNBLOCK);
    }
    // Only now: a stopper that finds nobody inside has raised the flag before this test.
    if (stop_flag_is_raised(stop)) {
        interruptible_leave(section);
        return false;
    }
    VEXA_TEST_WINDOW();
    return true;
}

void interruptible_leave(interruptible* section) {
    if (!section->inside) return;
    const int saved_errno = errno;
    {
        const vexa_lock lock(section->mutex);
        section->inside = false;
    }
    // What was sent until now has been handled; nothing is left pending for a later entry.
    mask_sigint(SIG_BLOCK);
    errno = saved_errno;
}

bool interruptible_nudge(interruptible* section) {
    const vexa_lock lock(section->mutex);
    if (!section->inside) return false;
    pthread_kill(section->thread, SIGINT);
    return true;
}
