#define LOG_TAG "vexastatsd"

#include "collectors/diag/diag_notify.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <iterator>

#include "platform/diag.h"
#include "platform/log.h"

namespace {

// Between two looks of the collector at its buffers, its time and its stop.
constexpr unsigned NOTIFICATIONS_A_LOOK = 16;

struct notification {
    int32_t signo = 0;
    int32_t has_info = 0;
    int32_t value = 0;
};

struct peripheral_name {
    uint16_t bit;
    const char* text;
};

// In the order in which they are looked for.
constexpr peripheral_name CONNECTIONS[] = {
    {DIAG_CON_MPSS, "DIAG_CON_MPSS"},
    {DIAG_CON_ADSP, "DIAG_CON_ADSP"},
};
constexpr peripheral_name SUPPORTERS[] = {
    {DIAG_CON_MPSS, "Modem"},
    {DIAG_CON_ADSP, "ADSP"},
    {DIAG_CON_WCN, "WCN"},
    {DIAG_CON_APPS, "APPS"},
};

// The notifications on their way from the handler to the thread. Made once and never closed: the
// handler may run at any time.
std::atomic<int> g_read_fd{-1};
std::atomic<int> g_write_fd{-1};
std::atomic<int64_t> g_last_signal{0};
static_assert(std::atomic<int64_t>::is_always_lock_free);

const char* connection_name(uint32_t value) {
    for (const peripheral_name& connection : CONNECTIONS) {
        if (value & connection.bit) return connection.text;
    }
    return "unknown peripheral";
}

void log_status(uint32_t value) {
    if (value & DIAG_STATUS_OPEN) {
        ALOGI("diag: DIAG_STATUS_OPEN on %s\n", connection_name(value));
    } else if (value & DIAG_STATUS_CLOSED) {
        ALOGI("diag: DIAG_STATUS_CLOSED on %s\n", connection_name(value));
    }
}

void log_support_list() {
    diag_dci_peripherals list = 0;
    const int result = diag_get_dci_support_list_proc(0, &list);
    if (result != DIAG_DCI_NO_ERROR) ALOGE("diag: could not get support list, err: %d\n", result);
    for (const peripheral_name& supporter : SUPPORTERS) {
        if (list & supporter.bit) ALOGI("diag: %s supports DCI\n", supporter.text);
    }
    if (list == 0) ALOGI("diag: No current dci support\n");
}

void log_notification(const notification& what) {
    if (what.has_info) {
        ALOGI("diag: In %s, signal %d received from kernel, data is: %x\n", "notify_handler",
              what.signo, static_cast<unsigned>(what.value));
        log_status(static_cast<uint32_t>(what.value));
    } else {
        ALOGI("diag: In %s, signal %d received from kernel, but no info value\n", "notify_handler",
              what.signo);
    }
    log_support_list();
}

// Returns whether there is a pipe.
bool open_pipe() {
    if (g_write_fd >= 0) return true;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
    g_read_fd = fds[0];
    g_write_fd = fds[1];
    return true;
}

}  // namespace

void diag_notify_install() {
    struct sigaction action = {};
    action.sa_sigaction = notify_handler;
    // Whichever thread it comes to, its calls go on: nothing waits for this signal.
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (!open_pipe() || sigaction(DIAG_NOTIFY_SIGNAL, &action, nullptr) != 0) {
        ALOGE("failed to handle signal %d. err:%d\n", DIAG_NOTIFY_SIGNAL, errno);
    }
}

void notify_handler(int signo, siginfo_t* info, void*) {
    const int saved_errno = errno;
    const notification what = {
        .signo = signo, .has_info = info != nullptr, .value = info ? info->si_value.sival_int : 0};
    // A pipe that is full has thousands of them to log: one more or less does not matter.
    (void)!write(g_write_fd, &what, sizeof what);
    diag_set_last_signal(signo);
    errno = saved_errno;
}

void diag_set_last_signal(int signo) {
    g_last_signal = signo;
}

int64_t diag_last_signal() {
    return g_last_signal;
}

int diag_notify_fd() {
    return g_read_fd;
}

void diag_notify_log() {
    for (unsigned i = 0; i < NOTIFICATIONS_A_LOOK; ++i) {
        notification what;
        if (read(g_read_fd, &what, sizeof what) != static_cast<ssize_t>(sizeof what)) return;
        log_notification(what);
    }
}
