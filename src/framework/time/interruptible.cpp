#include "framework/time/interruptible.h"

#include "framework/time/test_window.h"

bool interruptible_enter(interruptible* section, const stop_flag& stop) {
    section->inside = true;
    // Only now: a stopper that finds nobody inside has raised the flag before this test.
    if (stop_flag_is_raised(stop)) {
        interruptible_leave(section);
        return false;
    }
    VEXA_TEST_WINDOW();
    return true;
}

void interruptible_leave(interruptible* section) {
    section->inside = false;
}

bool interruptible_is_inside(const interruptible& section) {
    return section.inside;
}
