// Notifications of the diagnostics library: a signal whose value tells which peripheral's link was
// opened or closed. The handler only notes them; the row's thread logs them.
#pragma once

#include <signal.h>

#include <cstdint>

inline constexpr int DIAG_NOTIFY_SIGNAL = 18;

// Installs notify_handler. A failure is logged; notifications are then lost. Thread: the row's.
void diag_notify_install();

// The handler of the notification signal. Async-signal-safe; any thread.
void notify_handler(int signo, siginfo_t* info, void* context);

// Notes that a signal came. Async-signal-safe; any thread.
void diag_set_last_signal(int signo);

// The last one noted, 0: none. Any thread.
int64_t diag_last_signal();

// A descriptor that is readable while there are notifications to log; -1: none can come.
int diag_notify_fd();

// Logs notifications that came, each with what the library says of DCI support, which therefore is
// up. A few of them, so that a flood holds up nobody: the descriptor stays readable while there are
// more. Thread: the row's.
void diag_notify_log();
