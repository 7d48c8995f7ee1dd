#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "base/unique_handle.h"
#include "bench_phone.h"
#include "core/collectors.h"
#include "core/daemon.h"
#include "phone/enter.h"
#include "workloads.h"

namespace {

// Whether the thread waits, by the letter behind the name in its stat file.
bool is_waiting(const std::string& thread) {
    char stat[512] = "";
    const unique_file file(fopen(("/proc/self/task/" + thread + "/stat").c_str(), "re"));
    if (!file || !fgets(stat, sizeof stat, file.get())) return false;
    const char* name_end = strrchr(stat, ')');
    return name_end && name_end[1] && name_end[2] == 'S';
}

int waiting_threads() {
    int count = 0;
    const unique_dir tasks(opendir("/proc/self/task"));
    while (const dirent* entry = tasks ? readdir(tasks.get()) : nullptr) {
        if (entry->d_name[0] != '.' && is_waiting(entry->d_name)) count++;
    }
    return count;
}

// Says so once main, the monitor and every collector wait, and ends.
void* announce_ready(void*) {
    while (waiting_threads() < 2 + g_collector_count) usleep(200);
    puts("ready");
    fflush(stdout);
    return nullptr;
}

void start_announcer() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t announcer;
    const int error = pthread_create(&announcer, nullptr, announce_ready, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) throw std::runtime_error("no thread");
    pthread_detach(announcer);
}

}  // namespace

int bench_idle(long) {
    phone_options options;
    options.host_proc = true;
    phone_enter(options);
    start_announcer();
    return daemon_run();
}
