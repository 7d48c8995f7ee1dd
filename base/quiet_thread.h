// A thread that no signal interrupts: they are for the program's other threads.
#pragma once

#include <pthread.h>

// Starts `body` with `arg` in a joinable thread in which all signals are blocked. Returns false
// when there is no thread. Any thread.
bool quiet_thread_start(pthread_t* thread, void* (*body)(void*), void* arg);
