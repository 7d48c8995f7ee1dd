// The daemon's life: start-up, the threads, signals, shutdown.
#pragma once

// Runs the daemon until SIGTERM, SIGINT or SIGHUP and returns its exit code: 0, -EINVAL when the
// statistics directory cannot be made, or the error of a thread that could not be created. In the
// last case collectors still run and the process ends in here. Logged throughout.
// Thread: the process's only one.
int daemon_run();
