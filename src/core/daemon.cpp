#define LOG_TAG "vexastatsd"

#include "core/daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/standard_io.h"
#include "base/unique_handle.h"
#include "campaign/campaign_mgr.h"
#include "core/collectors.h"
#include "framework/files/test_override.h"
#include "framework/row/debug_build.h"
#include "framework/row/optout.h"
#include "framework/row/version.h"
#include "framework/time/clock.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/properties.h"

namespace {

constexpr char ENABLED_PROPERTY[] = "vendor.orb.vexa.enabled";
constexpr char STATS_DIR[] = "/data/vendor/vexastats";
constexpr int STOP_SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};

// Alive as long as the process: threads that a failed start-up leaves behind still use it.
constinit optout_context g_context;
pthread_t g_campaign_manager;

sigset_t stop_signal_set() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : STOP_SIGNALS) sigaddset(&set, signo);
    return set;
}

// To the process, not to the thread, which may have ended: every thread keeps the signal blocked,
// and the manager takes it from a descriptor. Async-signal-safe.
void stop_campaign_manager() {
    (void)kill(getpid(), SIGUSR1);
}

// The process signal handler. It runs on main; all other threads keep these signals blocked.
// It only raises flags and makes descriptors readable, so a signal at any moment does no harm.
void sig_handle(int signo) {
    for (int32_t i = 0; i < g_collector_count; i++) {
        if (g_collectors[i].sig_handler) g_collectors[i].sig_handler(signo);
    }
    stop_flag_raise(&g_context.stop);
    stop_campaign_manager();
}

// Announces the daemon. On debug builds a test file may give the property another value.
void set_enabled_property() {
    char build_type[PROPERTY_VALUE_MAX];
    property_get("ro.build.type", build_type, "userdebug");
    g_is_debug_build = strcmp(build_type, "eng") == 0 || strcmp(build_type, "userdebug") == 0;

    char value[3];  // the reader of the test file wants two bytes beside its one character
    if (g_is_debug_build && vexastats_get_test_config_file(value, sizeof value)) {
        ALOGD("test: property_set vendor.orb.vexa.enabled %s\n", value);
    } else {
        ALOGI("property_set vendor.orb.vexa.enabled 1\n");
        strcpy(value, "1");
    }
    property_set(ENABLED_PROPERTY, value);
}

// Gives the wall clock up to 20 s to become plausible. A stop signal, which stays blocked and
// pending until start-up is through, ends the wait.
void wait_for_wall_clock() {
    constexpr int MAX_SLEEPS = 4;
    constexpr int SLEEP_MS = 5000;
    const sigset_t signals = stop_signal_set();
    const unique_fd stop(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    pollfd pending{.fd = stop.get(), .events = POLLIN, .revents = 0};
    for (int i = 0; i < MAX_SLEEPS && vexastats_real_time_ms() < PLAUSIBLE_REAL_TIME_MS + 1; i++) {
        if (platform_poll(&pending, 1, SLEEP_MS) > 0) return;
    }
}

// Whether the directory is the daemon's alone. One that others could only look into is closed to
// them; into one that they could write to they may have put anything. Returns 0 or an errno.
int claim_stats_dir() {
    const unique_fd dir(open(STATS_DIR, O_RDONLY | O_CLOEXEC | O_DIRECTORY | O_NOFOLLOW));
    struct stat status = {};
    if (!dir || fstat(dir.get(), &status) != 0) return errno;
    if (status.st_uid != geteuid() || (status.st_mode & S_IWOTH)) return EPERM;
    if (!(status.st_mode & S_IRWXO)) return 0;
    return fchmod(dir.get(), status.st_mode & ~mode_t{S_IRWXO} & 07777) == 0 ? 0 : errno;
}

// Returns 0 or -EINVAL, logged.
int make_stats_dir() {
    if (mkdir(STATS_DIR, 0700) == 0) return 0;
    const int error = errno == EEXIST ? claim_stats_dir() : errno;
    if (error == 0) return 0;
    ALOGE("failed to create %s. err:%d\n", STATS_DIR, error);
    return -EINVAL;
}

void* collector_thread(void* arg) {
    auto* row = static_cast<collector_info*>(arg);
    row->thread_func(row);
    return nullptr;
}

void* optout_thread(void* arg) {
    optout_monitor(static_cast<optout_context*>(arg));
    return nullptr;
}

// Creates a thread that ends when `stop` is raised. Returns 0 or a positive error number.
int create_thread(pthread_t* thread, stop_flag* stop, void* (*body)(void*), void* arg) {
    const int error = stop_flag_open(stop);
    if (error != 0) return -error;
    return pthread_create(thread, nullptr, body, arg);
}

void start_collectors() {
    for (int32_t i = 0; i < g_collector_count; i++) {
        collector_info* row = &g_collectors[i];
        // Set before the thread can look, and taken back when there is none.
        row->running = 1;
        const int error = create_thread(&row->thread, &row->stop, collector_thread, row);
        if (error != 0) {
            row->running = 0;
            ALOGE("failed to create thread: %s. err:%d\n", row->name, error);
        }
    }
}

// Returns 0 or a positive error number; then the collectors have been told to stop, but nobody
// waits for them.
int start_optout_monitor() {
    g_context.table = g_collectors;
    g_context.count = g_collector_count;
    const int error = create_thread(&g_context.monitor, &g_context.stop, optout_thread, &g_context);
    if (error == 0) return 0;
    ALOGE("failed to create optout_monitor thread. err:%d\n", error);
    optout_handle(&g_context, 1);
    optout_stop_rows(&g_context);
    return error;
}

// Returns 0 or a positive error number, logged; then nobody waits for the other threads.
int start_campaign_manager() {
    const int error = pthread_create(&g_campaign_manager, nullptr, campaign_mgr_main, nullptr);
    if (error != 0) ALOGE("failed to create Campaign Manager thread. err:%d\n", error);
    return error;
}

// Comes before the collectors. Returns 0 or a positive error number; a
// daemon that could not be stopped starts none of them and ends right away.
int install_signal_handler() {
    struct sigaction action = {};
    action.sa_handler = sig_handle;
    sigemptyset(&action.sa_mask);
    for (const int signo : STOP_SIGNALS) {
        if (sigaction(signo, &action, nullptr) != 0) {
            const int error = errno;
            ALOGE("failed to handle signal %d. err:%d\n", signo, error);
            stop_flag_raise(&g_context.stop);
            return error;
        }
    }
    return 0;
}

// Lets the stop signals in, also one that came while they were blocked.
void unblock_signals() {
    const sigset_t signals = stop_signal_set();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Keeps the campaign manager's signal from ending the process, at any moment of its life.
void block_signals() {
    sigset_t signals = stop_signal_set();
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void join_threads(bool has_campaign_manager) {
    pthread_join(g_context.monitor, nullptr);
    stop_campaign_manager();  // the monitor may have ended without a signal
    if (has_campaign_manager) pthread_join(g_campaign_manager, nullptr);
    for (int32_t i = 0; i < g_collector_count; i++) {
        if (g_collectors[i].running) pthread_join(g_collectors[i].thread, nullptr);
    }
}

void announce_end() {
    ALOGI("property_set vendor.orb.vexa.enabled 0\n");
    property_set(ENABLED_PROPERTY, "0");
    ALOGI("vexastatsd stopped\n");
}

// Ends the process while collectors still run: without the destructors that would pull the ground
// from under them.
[[noreturn]] void end_with_threads_left(int exit_code) {
    announce_end();
    _exit(exit_code);
}

// Has freed buffers above this size go back to the system at once. The C library here would learn
// to keep ever larger ones, up to 32 MB a thread; the phone's has no such habit, and no such
// setting.
void return_large_buffers() {
#if defined(M_MMAP_THRESHOLD)
    (void)mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
}

}  // namespace

int daemon_run() {
    standard_io_complete();
    standard_io_ignore_sigpipe();
    block_signals();
    return_large_buffers();

    set_enabled_property();
    wait_for_wall_clock();
    ALOGI("vexastatsd version: %s started\n", VEXASTATSD_VERSION);
    // The property keeps its value when this fails: deliberate.
    if (make_stats_dir() != 0) return -EINVAL;

    const int signal_error = install_signal_handler();
    if (signal_error == 0) start_collectors();
    const int monitor_error = start_optout_monitor();
    if (monitor_error != 0) end_with_threads_left(monitor_error);
    const int manager_error = signal_error == 0 ? start_campaign_manager() : 0;
    if (manager_error != 0) end_with_threads_left(manager_error);

    if (signal_error == 0) unblock_signals();
    join_threads(signal_error == 0);
    announce_end();
    return signal_error;
}
