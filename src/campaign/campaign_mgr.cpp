#define LOG_TAG "vexastatsd"

#include "campaign/campaign_mgr.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/unique_handle.h"
#include "campaign/campaign_state.h"
#include "campaign/cdf_delivery.h"
#include "campaign/control_socket.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "platform/log.h"

namespace {

constexpr char DOWNLOAD_DIR[] = "/data/vendor/vexa/down/101";

constexpr int64_t RETRY_MS = 30000;
constexpr int64_t NEVER = INT64_MAX;

// For the one wait that looks at the signal descriptor itself.
constinit const stop_flag NEVER_STOPPED;

struct manager {
    unique_fd signal_fd;
    stop_flag stop;  // the signal descriptor, for every other wait of the thread
    control_server control;
    cdf_watch cdf;
    // Monotonic clock: when the campaigns are due for a check, and the file's watch for a new try.
    int64_t check_at_ms = NEVER;
    int64_t watch_again_at_ms = NEVER;
};

// A pass of the service loop ends to begin afresh, or with the thread.
enum class pass_end { AGAIN, STOPPED };

// SIGUSR1 stays pending until the end: its descriptor, once readable, ends every wait. Returns
// false, logged, when it cannot be had.
bool open_signal(manager* self) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    const int error = pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (error != 0) {
        ALOGE("%s: failed to block signal. err:%d\n", "campaign_mgr_main", error);
        return false;
    }
    self->signal_fd.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!self->signal_fd) {
        ALOGE("%s: failed to open signalfd. err:%d\n", "campaign_mgr_main", errno);
        return false;
    }
    stop_flag_by_signal(&self->stop, self->signal_fd.get());
    return true;
}

void make_storage_dir() {
    if (mkdir(CAMPAIGN_DIR, 0700) == 0 || errno == EEXIST) return;
    ALOGE("failed to create %s. err:%d\n", CAMPAIGN_DIR, errno);
}

void clear_state() {
    const vexa_lock lock(g_campaign.lock);
    g_campaign.state = {};
}

// Sleeps before the next pass, so that what fails at once does not fail without end.
pass_end retry_later(const manager& self) {
    return vexastats_sleep_ms(RETRY_MS, self.stop) ? pass_end::AGAIN : pass_end::STOPPED;
}

int64_t now_ms() {
    return static_cast<int64_t>(vexastats_mono_time_ms());
}

// A check, news of the file and a client's good message begin the wait for the next check anew.
void schedule_check(manager* self) {
    const int64_t timeout_ms = campaign_take_timeout_ms();
    self->check_at_ms = timeout_ms < 0 ? NEVER : now_ms() + timeout_ms;
}

enum poll_place { CDF, SIGNAL, CONTROL, POLL_FDS = CONTROL + CONTROL_POLL_FDS };
static_assert(POLL_FDS <= VEXASTATS_POLL_MAX_FDS);

// Waits for news, at most until something is due. Returns what the poll does.
int wait_for_news(const manager& self, pollfd (&fds)[POLL_FDS]) {
    fds[CDF] = {.fd = self.cdf.notifier.get(), .events = POLLIN, .revents = 0};
    fds[SIGNAL] = {.fd = self.signal_fd.get(), .events = POLLIN, .revents = 0};
    const int64_t control_at_ms = control_socket_watch(self.control, fds + CONTROL);
    const int64_t due_ms = std::min({self.check_at_ms, self.watch_again_at_ms, control_at_ms});
    const int64_t timeout_ms = due_ms == NEVER ? -1 : std::max<int64_t>(due_ms - now_ms(), 0);
    return vexastats_poll(fds, POLL_FDS, timeout_ms, NEVER_STOPPED);
}

pass_end serve(manager* self) {
    bool is_quiet = false;  // the last wake-up was a client's, and not worth a word
    for (;;) {
        pollfd fds[POLL_FDS];
        if (!is_quiet) ALOGI("%s:Going into poll\n", "campaign_mgr_main");
        const int ready = wait_for_news(*self, fds);
        const bool check_is_due = now_ms() >= self->check_at_ms;
        const bool watch_is_due = now_ms() >= self->watch_again_at_ms;
        const bool client_came =
            control_socket_receive(&self->control, (fds[CONTROL].revents & POLLIN) != 0);
        is_quiet = ready >= 0 && !check_is_due && !watch_is_due && !client_came &&
                   fds[CDF].revents == 0 && fds[SIGNAL].revents == 0;
        if (!is_quiet) ALOGI("%s:Coming out of poll %d\n", "campaign_mgr_main", ready);
        if (ready < 0) return retry_later(*self);
        if (check_is_due) campaign_check();

        cdf_news news = cdf_news::NONE;
        if (fds[CDF].revents & POLLIN) news = cdf_read_events(&self->cdf, self->stop);
        if (news == cdf_news::PROCESS) cdf_process(self->stop);
        const bool was_told = control_socket_act(&self->control);
        if (fds[SIGNAL].revents & (POLLIN | POLLERR | POLLHUP)) {
            ALOGI("Recieved Event %d \n", fds[SIGNAL].revents);
            return pass_end::STOPPED;
        }
        if (check_is_due || was_told || fds[CDF].revents != 0) schedule_check(self);
        if (news == cdf_news::WATCH_OVER || watch_is_due) return pass_end::AGAIN;
    }
}

pass_end service_pass(manager* self) {
    if (!self->control.listener) {
        const int error = control_socket_open(&self->control.listener);
        if (error != 0) {
            ALOGE("%s: failed create service socket. err:%d\n", "campaign_mgr_main", error);
            return retry_later(*self);
        }
    }
    if (!cdf_watch_begin(&self->cdf, self->stop)) return retry_later(*self);
    self->watch_again_at_ms = self->cdf.complete ? NEVER : now_ms() + RETRY_MS;
    if (self->cdf.complete) schedule_check(self);  // a file that was there has changed the table
    return serve(self);
}

}  // namespace

void* campaign_mgr_main(void*) {
    ALOGI("Campaign Manager Main Thread\n");
    manager self;
    if (!open_signal(&self)) return nullptr;
    vexastats_wait_dir_ready(DOWNLOAD_DIR, &self.stop);
    make_storage_dir();
    clear_state();
    campaign_mgr_load_campaigns_from_storage();
    cdf_finish_interrupted(self.stop);
    ALOGI("Waiting Thread\n");
    schedule_check(&self);

    while (service_pass(&self) == pass_end::AGAIN) {
    }
    control_socket_end(&self.control);
    ALOGI("Waiting Thread Done\n");
    ALOGI("Campaign Manager Main Thread Exit \n");
    return nullptr;
}
