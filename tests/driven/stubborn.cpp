// A program in the phone that no signal ends. With an argument it wakes every second of the phone's
// time, without one it waits for ever.
#include <signal.h>

#include "platform/clock.h"

int main(int argc, char**) {
    (void)signal(SIGTERM, SIG_IGN);
    for (;;) (void)platform_poll(nullptr, 0, argc > 1 ? 1000 : -1);
}
