#include "base/quiet_thread.h"

#include <signal.h>

bool quiet_thread_start(pthread_t* thread, void* (*body)(void*), void* arg) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(thread, nullptr, body, arg);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error == 0;
}
